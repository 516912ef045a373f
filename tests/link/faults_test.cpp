// What becomes of each kind of request under each fault of a card or its link: how many frames go out, what the
// requester hears, what the card holds.
#include "eth_raw/frame.h"
#include "link/bench_link.h"
#include "link/requests.h"
#include "support/log_capture.h"

#include <algorithm>

using namespace rvk;

namespace {

constexpr uint32_t first_addr = 0x1000, addr_step = 0x1000;
constexpr double always = 1.0;

using enum request_kind;

class Faults : public LinkTest {
protected:
    // The reads' content, at every row's address.
    void preset(uint32_t addr) { farm.write(near_card, addr, pattern(addr, frame_data_max)); }
    bool stored(uint32_t addr, size_t len) { return farm.read(near_card, addr, len) == pattern(addr, len); }
};

struct async_case {
    const char* name;
    request_kind kind;
    card_faults faults;
    size_t frames;
    size_t late;       // of them, those sent after an expiry; the others follow a refusal at once
    const char* heard; // by the requester
};

// A resend's answer is never late enough to come before the next resend: only the first answer is delayed, by 400 ms.
const async_case async_cases[] = {
    {"a good answer ends it silently", reported_write, {}, 1, 0, ""},
    {"no answer: three sends, one report", reported_write, {.loss = always}, 3, 2, "failed"},
    {"an acknowledgement lost", reported_write, {.reply_loss = 1}, 2, 1, ""},
    {"refused twice: resent at once, costs no try", reported_write, {.wrong_ack = 2}, 3, 0, ""},
    {"refused without end", reported_write, {.wrong_ack = always}, 1000, 0, "failed"},
    {"acknowledged after the resend", reported_write, {.delay = 1, .delay_ms = 400}, 2, 1, ""},
    {"acknowledged in wrong order", reported_write, {.reorder = 1}, 1, 0, ""},
    {"a corrupt acknowledgement", reported_write, {.corrupt = 1}, 2, 1, ""},
    {"an acknowledgement with bytes behind it", reported_write, {.trailing = 1}, 2, 1, ""},
    {"an acknowledgement that claims 60,000 bytes", reported_write, {.len_huge = 1}, 2, 1, ""},

    {"data", reported_read, {}, 1, 0, "data"},
    {"no answer: three sends, one report", reported_read, {.loss = always}, 3, 2, "failed"},
    {"two answers lost", reported_read, {.reply_loss = 2}, 3, 2, "data"},
    {"refused without end", reported_read, {.wrong_read = always}, 1000, 0, "failed"},
    {"more than a receive buffer holds", reported_read, {.read_oversized = 1, .oversized_len = 1500}, 2, 1, "data"},
    {"answered after the resend", reported_read, {.delay = 1, .delay_ms = 400}, 2, 1, "data"},
    {"a corrupt answer", reported_read, {.corrupt = 1}, 2, 1, "data"},
    {"an answer that claims half of its data", reported_read, {.len_short = 1}, 2, 1, "data"},
    {"an answer that claims 60,000 bytes", reported_read, {.len_huge = 1}, 2, 1, "data"},
    {"foreign frames and runts in between", reported_read, {.foreign = always, .runt = always}, 1, 0, "data"},
};

struct waited_case {
    const char* name;
    request_kind kind;
    card_faults faults;
    int32_t result;
    uint8_t ack;  // writes
    bool expires; // ends with the third expiry, not with an answer
};

const waited_case waited_cases[] = {
    {"a good answer", waited_write, {}, 0, 0, false},
    {"no answer", waited_write, {.loss = always}, -1, 255, true},
    {"a corrupt acknowledgement", waited_write, {.corrupt = 1}, -1, 255, true},
    {"an acknowledgement that claims 60,000 bytes", waited_write, {.len_huge = 1}, -1, 255, true},
    {"refused", waited_write, {.wrong_ack = 1, .wrong_status = 5}, 0, 5, false},
    {"strangers in between", waited_write, {.foreign = always, .runt = always}, 0, 0, false},

    {"data", waited_read, {}, 0, 0, false},
    {"no answer", waited_read, {.loss = always}, -1, 0, true},
    {"more than a receive buffer holds", waited_read, {.read_oversized = 1, .oversized_len = 1500}, -1, 0, true},
    {"a corrupt answer", waited_read, {.corrupt = 1}, -1, 0, true},
    {"strangers in between", waited_read, {.foreign = always, .runt = always}, 0, 0, false},
};

uint64_t median(std::vector<uint64_t> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? 0 : values[values.size() / 2];
}

} // namespace

TEST_F(Faults, EndEveryAsynchronousRequestOnce)
{
    uint32_t addr = first_addr;
    for (const async_case& row : async_cases) {
        SCOPED_TRACE(std::string(name_of(row.kind)) + ": " + row.name);
        addr += addr_step;
        if (row.kind == reported_read) { preset(addr); }
        static_cast<void>(take_messages());
        static_cast<void>(take_log());
        farm.set_faults(row.faults);
        ASSERT_EQ(run_request(row.kind, addr, 100).result, 0);
        settle_down();
        EXPECT_EQ(frames_to(addr).size(), row.frames);
        EXPECT_EQ(logged("no ack msg"), row.late);
        EXPECT_EQ(heard_about(addr, take_messages()), row.heard);
        if (row.kind == reported_read) { continue; }
        EXPECT_EQ(stored(addr, 100), row.faults.loss.part == 0 && row.faults.wrong_ack.part == 0);
    }
}

TEST_F(Faults, EndEverySynchronousRequestAfterOneFrame)
{
    constexpr uint32_t quick_ticks = 1, forever_ticks = 1000;
    uint32_t addr = first_addr;
    for (const waited_case& row : waited_cases) {
        SCOPED_TRACE(std::string(name_of(row.kind)) + ": " + row.name);
        addr += addr_step;
        if (row.kind == waited_read) { preset(addr); }
        farm.set_faults(row.faults);
        const auto r = run_request(row.kind, addr, 100, row.expires ? quick_ticks : forever_ticks);
        EXPECT_EQ(r.result, row.result);
        EXPECT_EQ(r.ack, row.ack);
        EXPECT_EQ(r.data, row.kind == waited_read && row.result == 0 ? pattern(addr, 100) : std::vector<uint8_t>{});
        EXPECT_LT(r.took_us, 20'000'000u);
        if (row.expires) { EXPECT_GE(r.took_us, 30'000u); } // three expiries, and at most two ticks wait already
        settle_down();
        EXPECT_EQ(frames_to(addr).size(), 1u);
    }
}

// A tick may be waiting already when a timer is armed: three ticks are 50 to 100 ms on a quiet machine.
TEST_F(Faults, ExpiriesComeAfterThreeTicks)
{
    constexpr uint32_t requests = 7;
    farm.set_faults({.loss = always});
    std::vector<uint64_t> waits;
    for (uint32_t i = 0; i < requests; ++i) {
        ASSERT_EQ(run_request(i % 2 == 0 ? reported_write : reported_read, first_addr + i, 4).result, 0);
        waits.push_back(run_request(i % 2 == 0 ? waited_read : waited_write, first_addr + 100, 4, 3).took_us);
    }
    settle_down();
    std::vector<uint64_t> gaps;
    for (uint32_t i = 0; i < requests; ++i) {
        const auto frames = frames_to(first_addr + i);
        ASSERT_EQ(frames.size(), 3u);
        for (size_t n = 1; n < 3; ++n) { gaps.push_back(frames[n].time_us - frames[n - 1].time_us); }
    }
    EXPECT_GE(median(gaps), 45'000u);
    EXPECT_LE(median(gaps), 200'000u);
    EXPECT_GE(median(waits), 3 * 60'000u);
    EXPECT_LE(median(waits), 3 * 200'000u);
    EXPECT_EQ(take_messages().size(), requests);
}
