// Sends that fail, and sends whose sender gets control back only when everything has happened already.
#include "eth_raw/frame.h"
#include "link/bench_link.h"
#include "link/injected_send.h"
#include "link/requests.h"
#include "raw_msg/send_plain.h"
#include "support/log_capture.h"

using namespace rvk;

namespace {

using enum request_kind;
using enum send_fate;

constexpr request_kind kinds[] = {plain_write, reported_write, waited_write, reported_read, waited_read};
constexpr uint32_t first_addr = 0x1000000, addr_step = 0x1000; // plain memory of a simulated card
constexpr double always = 1.0;

class SendFailures : public LinkTest {
protected:
    void TearDown() override
    {
        plan_sends({});
        LinkTest::TearDown();
    }
    // A request to an address of its own, whose content a read finds there.
    request_result run(request_kind kind, std::vector<send_fate> fates, const card_faults& faults = {})
    {
        addr += addr_step;
        if (kind == reported_read || kind == waited_read) { farm.write(near_card, addr, pattern(addr, 100)); }
        static_cast<void>(take_messages());
        farm.set_faults(faults);
        plan_sends(std::move(fates));
        return run_request(kind, addr, 100, long_ticks);
    }
    static constexpr uint32_t long_ticks = 1000; // nobody who waits for an answer is quick
    uint32_t addr = first_addr;
};

struct failure_case {
    const char* name;
    std::vector<send_fate> fates;
    size_t attempts, frames;
    bool sent;
};

const failure_case failure_cases[] = {
    {"a frame cut short", {cut_short}, 1, 0, false},
    {"would block once", {would_block}, 2, 1, true},
    {"would block twice", {would_block, would_block}, 2, 0, false},
    {"would block, then no buffers", {would_block, no_buffers}, 2, 0, false},
    {"no buffers", {no_buffers}, 1, 0, false},
    {"link down", {link_down}, 1, 0, false},
    {"answered, and then reported as failed", {sent_but_denied}, 1, 1, false},
    {"answered before the send returns", {returns_answered}, 1, 1, true},
    {"nothing wrong", {}, 1, 1, true},
};

struct resend_case {
    const char* name;
    request_kind kind;
    card_faults faults;
    std::vector<send_fate> fates;
    size_t attempts, frames;
    const char* heard;
};

const resend_case resend_cases[] = {
    {"a failed resend is made up for by the next", reported_write, {.loss = 1}, {works, no_buffers}, 3, 2, ""},
    {"no resend works", reported_write, {.loss = 1}, {works, link_down, link_down}, 3, 1, "failed"},
    {"the same of a read", reported_read, {.loss = 1}, {works, link_down, cut_short}, 3, 1, "failed"},
    {"a refused write's resend fails", reported_write, {.wrong_ack = 1}, {works, no_buffers}, 3, 2, ""},
    {"a resend that would block", reported_write, {.loss = 1}, {works, would_block}, 3, 2, ""},

    // The sender is held while the card answers, refuses, or while all periods pass: none of that counts before it
    // has settled the request, and then all of it does.
    {"acknowledged while held", reported_write, {}, {returns_late}, 1, 1, ""},
    {"acknowledged twice while held", reported_write, {.duplicate = always}, {returns_late}, 1, 1, ""},
    {"refused while held", reported_write, {.wrong_ack = 1}, {returns_late}, 2, 2, ""},
    {"refused twice while held", reported_write, {.wrong_ack = 1, .duplicate = 1}, {returns_late}, 2, 2, ""},
    {"lost while held", reported_write, {.loss = 1}, {returns_late}, 2, 2, ""},
    {"never answered", reported_write, {.loss = always}, {returns_late}, 3, 3, "failed"},
    {"data while held", reported_read, {}, {returns_late}, 1, 1, "data"},
    {"refused while held", reported_read, {.wrong_read = 1}, {returns_late}, 2, 2, "data"},
    {"no data while held", reported_read, {.read_empty = 1}, {returns_late}, 2, 2, "data"},
    {"too much data while held", reported_read, {.read_oversized = 1}, {returns_late}, 1, 1, "failed"},
    {"never answered", reported_read, {.loss = always}, {returns_late}, 3, 3, "failed"},
};

} // namespace

TEST_F(SendFailures, EndARequestAtOnceAndTheNextOneWorks)
{
    for (const failure_case& row : failure_cases) {
        for (const request_kind kind : kinds) {
            if (kind == plain_write && !row.fates.empty() && row.fates[0] >= sent_but_denied) { continue; } // no answer
            SCOPED_TRACE(std::string(name_of(kind)) + ": " + row.name);
            const auto r = run(kind, row.fates);
            EXPECT_EQ(r.result, row.sent || kind == plain_write ? 0 : -1);
            EXPECT_LT(r.took_us, 5'000'000u);
            const auto attempts = send_times_us();
            EXPECT_EQ(attempts.size(), row.attempts);
            if (attempts.size() == 2) { EXPECT_GE(attempts[1] - attempts[0], 1000u); }
            settle_down();
            EXPECT_EQ(frames_to(addr).size(), row.frames);
            EXPECT_EQ(heard_about(addr, take_messages()), row.sent && kind == reported_read ? "data" : "");
            EXPECT_EQ(run(kind, {}).result, 0); // the next one
            settle_down();
        }
    }
}

TEST_F(SendFailures, OfResendsAndHeldSendersAreMadeUpFor)
{
    for (const resend_case& row : resend_cases) {
        SCOPED_TRACE(std::string(name_of(row.kind)) + ": " + row.name);
        ASSERT_EQ(run(row.kind, row.fates, row.faults).result, 0);
        ASSERT_TRUE(soon([] { return pending() == 0; }));
        EXPECT_EQ(send_times_us().size(), row.attempts);
        settle_down();
        EXPECT_EQ(frames_to(addr).size(), row.frames);
        EXPECT_EQ(heard_about(addr, take_messages()), row.heard);
    }
}

// Frame layer and operation each log a failed send once; a resend that fails is no news.
TEST_F(SendFailures, AreLogged)
{
    EXPECT_EQ(run(waited_read, {no_buffers}).result, -1);
    EXPECT_EQ(logged("sendto fail:len = 100, ret_len = -1, packet_length= 94, errno = 105"), 1u);
    EXPECT_EQ(logged("RawSockSendMsgWithReadWait : send fail"), 1u);
    EXPECT_EQ(logged("need send again"), 0u);
    EXPECT_EQ(run(plain_write, {would_block, cut_short}).result, 0);
    EXPECT_EQ(logged("need send again"), 1u);
    EXPECT_EQ(logged("sendto fail:len = 100, ret_len = 129, packet_length= 130, errno = 0\n"), 1u);
    EXPECT_EQ(logged("#######error RawSockSendMsg : index:0"), 1u);
    plan_sends({works, link_down, works});
    EXPECT_EQ(send_plain_counted(0, 0, near_card.slot, first_addr, code_write, pattern(0, 2900)), 1);
}
