// Every allocation of the daemon fails once, while it starts and while it carries out each kind of command: it goes on,
// answers as far as it can, gives back what it took, and carries out the next command.
#include "faults/faulty_daemon.h"

#include "base/bytes.h"
#include "cardsim/faults.h"

#include <gtest/gtest.h>

#include <csignal>
#include <dirent.h>
#include <unistd.h>

using namespace rvk;

namespace {

enum class when_failing { refused, silent, anyhow };

struct step {
    const char* name;
    command_fields command;
    std::vector<int32_t> results; // of the answers when nothing fails
    when_failing then = when_failing::refused;
    bool needs_reply_buffer = false; // without its first allocation nobody is told
    bool card_is_silent = false;
};

using results = std::vector<int32_t>;

std::vector<step> steps(const std::string& picture, const std::string& image, const std::string& copy)
{
    const std::vector<uint8_t> long_write(2000, 7); // two frames
    return {
        {"greeting", {.code = command::greeting}, {0}, when_failing::silent},
        {"read", {.code = command::read, .len = 16}, {0}, when_failing::refused, true},
        {"plain write", {.code = command::write, .payload = long_write}, {}},
        {"waited write", {.code = command::write_ack, .slot = 2, .payload = long_write}, {0}, when_failing::anyhow},
        {"unwaited write", {.code = command::write_ack, .payload = {1, 2}}, {}},
        {.name = "unwaited write that no card answers",
         .command = {.code = command::write_ack, .payload = {1, 2}},
         .results = {-1},
         .then = when_failing::silent,
         .card_is_silent = true},
        {"picture put",
         {.code = command::file_write, .payload = picture_payload(small_width, small_height, picture)},
         {0},
         when_failing::anyhow},
        {"picture get", {.code = command::file_read, .payload = picture_payload(small_width, small_height, copy)}, {}},
        {"update", {.code = command::update, .slot = 3, .payload = update_payload(0x1A, image)}, {0}},
    };
}

// What is to come when the nth allocation of a step failed; `got` is what did.
void judge(const step& s, int64_t n, const results& got)
{
    if (s.then == when_failing::silent || s.results.empty() || (s.needs_reply_buffer && n == 1)) {
        EXPECT_EQ(got, results{});
    } else if (s.then == when_failing::refused) {
        EXPECT_EQ(got, results{-1});
    } else {
        EXPECT_TRUE(got == results{-1} || got == results{0}) << got.size() << " answers";
    }
}

size_t open_files(pid_t pid)
{
    size_t count = 0;
    DIR* const folder = opendir(("/proc/" + std::to_string(pid) + "/fd").c_str());
    while (readdir(folder) != nullptr) { ++count; }
    closedir(folder);
    return count;
}

class Allocations : public FaultsTest {
protected:
    Allocations() { cards_may_refuse = true; } // a step of a picture, a read-back or an update is left out

    results play(const step& s)
    {
        if (s.card_is_silent) { farm.set_faults({.loss = 1.0}); }
        results out;
        if (s.command.code == command::update) { // commands that come while it runs are dropped
            out.push_back(result_of(client->ask(s.command)));
        } else {
            client->tell(s.command);
        }
        for (const auto& answer : answers_until_done()) { out.push_back(result_of(answer)); }
        if (s.card_is_silent) { farm.set_faults({}); }
        return out;
    }

    // Starts a daemon whose nth allocation fails. Result: whether it made so many until its first picture was loaded.
    bool start_without(int64_t n)
    {
        kill_daemon(); // that of the test's beginning
        faults.clear();
        faults.plan->short_pauses = 1;
        faults.plan->fail_at = n;
        unlink(log_files[0].c_str());
        d = std::make_unique<daemon_process>(std::vector<std::string>{"-f"}, faults.setup());
        EXPECT_TRUE(comes_true([&] {
            const bool loaded = file_text(log_files[0]).find("write demo pic total") != std::string::npos;
            return loaded || faults.plan->failed != 0;
        }));
        return faults.plan->failed != 0;
    }

    void judge_service(bool link, bool files)
    {
        conversation other;
        EXPECT_TRUE(other.is_greeted());
        EXPECT_EQ(result_of(other.ask({.code = command::read, .len = 4})), link ? 0 : -1);
        const auto put = picture_payload(small_width, small_height, picture);
        EXPECT_EQ(result_of(other.ask({.code = command::file_write, .payload = put})), files ? 0 : -1);
    }

    // Result: whether there was an nth allocation.
    bool fail(const step& s, int64_t n, bool all_behind)
    {
        EXPECT_EQ(faults.look(), at_rest); // nothing waits in the pool now
        const uint64_t failed_before = faults.plan->failed;
        faults.plan->all_behind = all_behind ? 1 : 0;
        faults.plan->fail_at = n;
        const results got = play(s);
        faults.plan->fail_at = 0;
        if (faults.plan->failed == failed_before) { return false; }
        judge(s, n, got);
        return true;
    }
};

} // namespace

// A thread that could not be started is told by the log, and what it serves is refused; everything else works.
TEST_F(Allocations, OfTheStartFailOneByOne)
{
    int64_t n = 1;
    for (; start_without(n) && !HasFatalFailure(); ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        const auto says = [](const char* text) { return file_text(log_files[0]).find(text) != std::string::npos; };
        ASSERT_TRUE(comes_true([&] { return says("create apipc wex succeed") || says("WexApRecvTaskCreate"); }));
        ASSERT_TRUE(comes_true([&] { return says("file write  thread id") || says("WexApFileTaskCreate"); }));
        const bool commands = !says("WexApRecvTaskCreate"), link = !says("  create/   55 ]:: failed");
        const bool files = !says("WexApFileTaskCreate"), signals = !says("are not served");
        ASSERT_EQ(d->end(milliseconds{0}), still_running);
        if (commands) { judge_service(link, files); }
        faults.plan->fail_at = 0;
        ASSERT_EQ(d->end_by(signals ? SIGTERM : SIGKILL), signals ? 0 : 1000 + SIGKILL);
        d.reset();
    }
    EXPECT_GT(n, 10) << "a start makes more allocations";
    kill_daemon();
    std::printf("start: %lld allocations\n", static_cast<long long>(n - 1));
}

TEST_F(Allocations, OfEveryCommandFailOneByOneAndTogether)
{
    const std::string image = file("small.bin", content(3, 3000));
    const std::vector<step> all = steps(picture, image, in_folder("copy"));
    for (const step& s : all) { EXPECT_EQ(play(s), s.results) << s.name; } // and what is allocated but once is there
    const size_t files = open_files(d->pid());
    for (const step& s : all) {
        for (const bool all_behind : {false, true}) {
            int64_t n = 1;
            for (;; ++n) {
                SCOPED_TRACE(std::string(s.name) + ", allocation " + std::to_string(n) + (all_behind ? " and on" : ""));
                if (!fail(s, n, all_behind) || HasFatalFailure()) { break; }
                ASSERT_EQ(fault_in_service(), "");
            }
            EXPECT_GT(n, 1) << s.name << " allocates nothing";
            EXPECT_EQ(open_files(d->pid()), files) << s.name;
            if (!all_behind) { std::printf("%s: %lld allocations\n", s.name, static_cast<long long>(n - 1)); }
        }
    }
}
