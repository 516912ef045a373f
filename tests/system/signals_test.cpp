// The end of the process: by a signal, with its last words in the log, and status 0.
#include "system/daemon.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <numeric>
#include <random>
#include <set>

using namespace rvk;

namespace {

constexpr int repetitions = sanitized ? 4 : 12; // of each signal in each situation
const std::vector<int> deadly = deadly_signals();

// Commands of all kinds that need no card, and some that would; as many as the daemon's queue takes.
void flood(conversation& requester, int commands)
{
    const std::vector<uint8_t> messages[] = {
        requester.pack({.code = command::greeting}),
        requester.pack({.code = command::write, .payload = {1, 2, 3, 4}}),
        requester.pack({.code = 0x55, .payload = {'t', 'e', 'x', 't'}}),
        requester.pack({.code = command::write_ack, .addr = 0x1000, .payload = {1, 2, 3, 4}}),
    };
    for (int i = 0; i < commands; ++i) {
        static_cast<void>(requester.send(daemon_identity, messages[static_cast<size_t>(i) % std::size(messages)]));
    }
}

// From when on the process itself decides what the signal does.
bool takes_over(pid_t process, int number)
{
    const std::string self = std::to_string(process);
    const signal_mask blocked = mask_of(self, "SigBlk");
    if (blocked.has(SIGUSR1)) { return false; } // all are, for a moment, while a library starts a thread
    return number == SIGSEGV ? mask_of(self, "SigCgt").has(SIGTERM) : blocked.has(number);
}

// Which of the signals that matter each thread lets through, thread by thread.
const std::string expected_receivers = "rvk-check: 11 14\nrvk-death: 11\nrvk-file: 11\nrvk-ipc: 11\nrvk-recv: 11\n"
                                       "rvk-signal: 2 3 11 15\nrvk-status: 11\nrvkd: 11\n";
std::string receivers(pid_t process)
{
    std::set<std::string> lines;
    for (const thread_facts& t : threads_of(process)) {
        if (t.name == "rvkd" && t.tid != std::to_string(process)) { continue; } // a sanitizer's own
        const signal_mask blocked = mask_of(std::to_string(process) + "/task/" + t.tid, "SigBlk");
        std::string line = t.name + ":";
        for (const int number : {SIGINT, SIGQUIT, SIGSEGV, SIGPIPE, SIGALRM, SIGTERM}) {
            if (!blocked.has(number)) { line += ' ' + std::to_string(number); }
        }
        lines.insert(line + '\n');
    }
    return std::accumulate(lines.begin(), lines.end(), std::string());
}

// Serves, its start perhaps not over; under ThreadSanitizer over, since a signal inside its runtime may be its end.
bool is_up(const daemon_process& d, conversation& requester)
{
    if (!requester.is_greeted()) { return false; }
    return !thread_sanitized || comes_true([&] { return receivers(d.pid()) == expected_receivers; });
}

void expect_one_death(int first, int second)
{
    SCOPED_TRACE(std::string(strsignal(first)) + ", then " + strsignal(second));
    conversation requester;
    daemon_process d({"-d"});
    ASSERT_TRUE(is_up(d, requester));
    d.signal(first);
    ASSERT_EQ(d.end_by(second, last_words), 0);
    ASSERT_EQ(fault_in_last_words(d.output()), "") << d.output();
}

void expect_death_at_start(int number)
{
    SCOPED_TRACE(strsignal(number));
    std::mt19937 dice(static_cast<unsigned>(number));
    for (int i = 0; i < 2 * repetitions; ++i) {
        daemon_process d({"-d"});
        ASSERT_TRUE(comes_true([&] { return takes_over(d.pid(), number); }));
        pause_us(dice() % 4000);
        ASSERT_EQ(d.end_by(number, last_words), 0);
        // A fault may hit a thread that is writing to the log; a termination never does.
        if (number != SIGSEGV) { ASSERT_EQ(fault_in_last_words(d.output()), "") << d.output(); }
    }
}

} // namespace

TEST(Signals, EachDeadlyOneEndsAnIdleDaemonWithItsLastWords)
{
    conversation requester;
    for (const int number : deadly) {
        SCOPED_TRACE(strsignal(number));
        for (int i = 0; i < repetitions; ++i) {
            daemon_process d({"-d"});
            ASSERT_TRUE(is_up(d, requester));
            ASSERT_EQ(d.end_by(number, last_words), 0);
            ASSERT_EQ(fault_in_last_words(d.output()), "") << d.output();
        }
    }
}

TEST(Signals, WhileCommandsAreRunning)
{
    conversation requester;
    for (const int number : deadly) {
        SCOPED_TRACE(strsignal(number));
        for (int i = 0; i < repetitions; ++i) {
            daemon_process d({"-d"});
            ASSERT_TRUE(is_up(d, requester));
            flood(requester, 60 * i);
            ASSERT_EQ(d.end_by(number, last_words), 0);
            ASSERT_EQ(fault_in_last_words(d.output()), "") << d.output();
            while (!requester.receive(milliseconds{0}).empty()) {}
        }
    }
}

TEST(Signals, TwoAreOneDeath)
{
    for (int i = 0; i < 4 * repetitions; ++i) {
        const auto n = static_cast<size_t>(i);
        expect_one_death(deadly[n % deadly.size()], deadly[n / deadly.size() % deadly.size()]);
    }
}

// From the moment on at which the daemon takes them into its own hands.
TEST(Signals, DuringTheStart)
{
    for (const int number : deadly) {
        if (thread_sanitized && number == SIGSEGV) { continue; } // see is_up
        expect_death_at_start(number);
    }
}

TEST(Signals, AHangUpIsIgnored)
{
    daemon_process d({"-d"});
    conversation requester;
    ASSERT_TRUE(requester.is_greeted());
    for (int i = 0; i < 100; ++i) {
        d.signal(SIGHUP);
        ASSERT_TRUE(requester.is_greeted());
    }
    EXPECT_EQ(d.end_by(SIGTERM), 0);
}

// Each thread has its part: terminations go to one that never holds a lock, ticks to the check thread.
TEST(Signals, WhoReceivesWhat)
{
    daemon_process d;
    ASSERT_TRUE(conversation().is_greeted());
    EXPECT_TRUE(comes_true([&] { return receivers(d.pid()) == expected_receivers; }, milliseconds{10'000}))
        << receivers(d.pid());
    EXPECT_EQ(d.end_by(SIGTERM), 0);
}
