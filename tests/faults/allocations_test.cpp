// Every allocation of the daemon fails once, while it starts and while it carries out each kind of command: it goes on,
// answers as far as it can, gives back what it took, and carries out the next command.
#include "faults/faulty_daemon.h"

#include "base/bytes.h"
#include "cardsim/faults.h"

#include <gtest/gtest.h>

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

class Allocations : public FaultsTest {
protected:
    Allocations()
    {
        arguments = {"-f"};
        cards_may_refuse = true; // a step of a picture, a read-back or an update is left out
    }

    results play(const step& s)
    {
        if (s.card_is_silent) { farm.set_faults({.loss = 1.0}); }
        results out = results_of(s.command);
        if (s.card_is_silent) { farm.set_faults({}); }
        return out;
    }

    // Starts a daemon whose nth allocation fails. Result: whether it made so many until its first picture was loaded.
    bool start_without(int64_t n)
    {
        kill_daemon(); // that of the test's beginning
        faults.clear();
        faults.plan->fail_at = n;
        start_with_log(faults.setup());
        EXPECT_TRUE(comes_true([&] { return faults.plan->failed != 0 || log_says("", "write demo pic total"); }));
        return faults.plan->failed != 0;
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
    for (; start_without(n) && !HasFailure(); ++n) {
        SCOPED_TRACE("allocation " + std::to_string(n));
        judge_start();
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
    for (const step& s : all) {
        for (const bool all_behind : {false, true}) {
            int64_t n = 1;
            for (;; ++n) {
                SCOPED_TRACE(std::string(s.name) + ", allocation " + std::to_string(n) + (all_behind ? " and on" : ""));
                if (!fail(s, n, all_behind) || HasFailure()) { break; }
                ASSERT_EQ(fault_in_service(), "");
            }
            ASSERT_GT(n, 1) << s.name << " allocates nothing";
            if (HasFailure()) { return; } // each more would wait as long
            if (!all_behind) { std::printf("%s: %lld allocations\n", s.name, static_cast<long long>(n - 1)); }
        }
    }
}
