// The end of the process: by a signal, with its last words in the log, and status 0.
#include "system/daemon.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <random>

using namespace rvk;

namespace {

constexpr int repetitions = 12; // of each signal in each situation
const int deadly[] = {SIGTERM, SIGINT, SIGQUIT, SIGSEGV};

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

} // namespace

TEST(Signals, EachDeadlyOneEndsAnIdleDaemonWithItsLastWords)
{
    for (const int number : deadly) {
        SCOPED_TRACE(strsignal(number));
        for (int i = 0; i < repetitions; ++i) {
            daemon_process d({"-d"});
            ASSERT_TRUE(conversation().is_greeted());
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
            ASSERT_TRUE(requester.is_greeted());
            flood(requester, 60 * i);
            ASSERT_EQ(d.end_by(number, last_words), 0);
            ASSERT_EQ(fault_in_last_words(d.output()), "") << d.output();
            while (!requester.receive(milliseconds{0}).empty()) {}
        }
    }
}

TEST(Signals, TwoAreOneDeath)
{
    for (const int second : deadly) {
        SCOPED_TRACE(strsignal(second));
        for (int i = 0; i < repetitions; ++i) {
            daemon_process d({"-d"});
            ASSERT_TRUE(conversation().is_greeted());
            d.signal(deadly[i % 4]);
            ASSERT_EQ(d.end_by(second, last_words), 0);
            ASSERT_EQ(fault_in_last_words(d.output()), "") << d.output();
        }
    }
}

// From the moment on at which the daemon takes them into its own hands.
TEST(Signals, DuringTheStart)
{
    std::mt19937 dice(1);
    for (const int number : deadly) {
        SCOPED_TRACE(strsignal(number));
        for (int i = 0; i < 2 * repetitions; ++i) {
            daemon_process d({"-d"});
            const std::string self = std::to_string(d.pid());
            ASSERT_TRUE(comes_true([&] {
                return number == SIGSEGV ? in_mask(self, "SigCgt", SIGTERM) : in_mask(self, "SigBlk", number);
            }));
            pause_us(dice() % 4000);
            ASSERT_EQ(d.end_by(number, last_words), 0);
            // A fault may hit a thread that is writing to the log; a termination never does.
            if (number != SIGSEGV) { ASSERT_EQ(fault_in_last_words(d.output()), "") << d.output(); }
        }
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
    const auto receives = [&](const std::string& tid, int number) {
        return !in_mask(std::to_string(d.pid()) + "/task/" + tid, "SigBlk", number);
    };
    int threads = 0;
    for (const thread_facts& t : threads_of(d.pid())) {
        if (t.name.rfind("rvk", 0) != 0) { continue; } // a sanitizer's own
        SCOPED_TRACE(t.name);
        ++threads;
        EXPECT_FALSE(receives(t.tid, SIGPIPE));
        EXPECT_EQ(receives(t.tid, SIGALRM), t.name == "rvk-check");
        for (const int number : {SIGTERM, SIGINT, SIGQUIT}) {
            EXPECT_EQ(receives(t.tid, number), t.name == "rvk-signal");
        }
        EXPECT_TRUE(receives(t.tid, SIGSEGV));
    }
    EXPECT_EQ(threads, 7);
    EXPECT_EQ(d.end_by(SIGTERM), 0);
}
