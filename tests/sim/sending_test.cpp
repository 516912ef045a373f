// What senders do before anything can be answered: pieces, numbers, refusals, a pool without blocks, a socket that
// fails.
#include "ap_msg/message.h"
#include "cardsim/checks.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "raw_msg/send_ack.h"
#include "raw_msg/send_plain.h"
#include "raw_msg/send_read.h"
#include "sim/outside.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <array>
#include <cerrno>

using namespace rvk;

namespace {

constexpr uint32_t requester = 7;
const std::vector<uint8_t> data(2900, 0x5A);

// Each operation once, with `n` bytes; a synchronous one is answered well at its first step of waiting.
struct operation {
    const char* name;
    bool plain; // not numbered, not tracked; goes on with the next frame whatever happens
    int32_t (*run)(int index, size_t n);
};

int32_t read_later(int index, size_t n)
{
    uint8_t* dest = ApMsgBuffGet(1400);
    if (dest == nullptr) { return -1; }
    const int32_t result =
        RawSockSendMsgWithRead(requester, index, 2, 3, 0x1000, code_read, static_cast<uint32_t>(n), {dest, 1400});
    if (result != 0) { ApMsgBuffFree(dest); }
    return result;
}

int32_t read_now(int index, size_t n)
{
    static std::array<uint8_t, 1400> dest;
    uint32_t len = 0;
    return RawSockSendMsgWithReadWait(index, 2, 3, 0x1000, code_read, static_cast<uint32_t>(n), dest, &len, 3);
}

int32_t write_now(int index, size_t n)
{
    uint8_t ack = 0;
    return RawSockSendMsgWithAckWait(index, 2, 3, 0x1000, code_write_ack, std::span(data).first(n), &ack, 3);
}

const operation operations[] = {
    {"plain write", true,
     [](int index, size_t n) { return RawSockSendMsg(index, 2, 3, 0x1000, code_write, std::span(data).first(n)); }},
    {"write", false,
     [](int index, size_t n) {
         return RawSockSendMsgWithAck(requester, index, 2, 3, 0x1000, code_write_ack, std::span(data).first(n));
     }},
    {"write and wait", false, write_now},
    {"read", false, read_later},
    {"read and wait", false, read_now},
};

std::vector<request_fields> cards_see()
{
    std::vector<request_fields> all;
    for (const frame_bytes_t& frame : world.frames) {
        request_fields fields;
        EXPECT_EQ(name_of(check_request(frame, fields)), std::string("good"));
        all.push_back(fields);
    }
    return all;
}

void answer_last_frame()
{
    const request_fields last = cards_see().back();
    receive(pack({last.code, ack_good, last.addr, last.seq, std::span(data).first(last.code == code_read ? 4 : 0)}));
}

void end_what_is_pending()
{
    world.allocations_left = -1;
    ticks(9);
    EXPECT_EQ(filed(), 0);
}

class Sending : public testing::Test {
protected:
    Sending() { start(); }
    void start()
    {
        reset_outside(0xFFFF);
        take_log();
        world.on_wait = answer_last_frame;
    }
};

TEST_F(Sending, CutsLongDataIntoNumberedPieces)
{
    for (const operation& op : {operations[0], operations[1], operations[2]}) {
        SCOPED_TRACE(op.name);
        start();
        ASSERT_EQ(op.run(0, 2900), 0);
        const auto seen = cards_see();
        ASSERT_EQ(seen.size(), 3u);
        for (size_t i = 0; i < 3; ++i) {
            EXPECT_EQ(seen[i].addr, 0x1000 + 1400 * i);
            EXPECT_EQ(seen[i].len, i < 2 ? 1400 : 100);
            EXPECT_EQ(seen[i].seq, op.plain ? 0 : static_cast<uint16_t>(0xFFFF + i)); // wraps from 65,535 to 0
            EXPECT_EQ(seen[i].model, 2);
            EXPECT_EQ(seen[i].slot, 3);
        }
        end_what_is_pending();
    }
}

// Every way to run out of blocks on the way: a clean -1, nothing sent, nothing left over.
TEST_F(Sending, SurvivesAPoolWithoutBlocks)
{
    for (const operation& op : operations) {
        const std::string before = pool_in_use();
        int needed = 0;
        for (; needed < 4; ++needed) {
            SCOPED_TRACE(std::string(op.name) + " with " + std::to_string(needed) + " blocks");
            start();
            world.allocations_left = needed;
            if (op.run(0, 8) == 0) { break; }
            EXPECT_TRUE(world.frames.empty());
            EXPECT_EQ(filed(), 0);
            EXPECT_EQ(pool_in_use(), before);
        }
        EXPECT_GE(needed, op.plain ? 1 : 2);
        end_what_is_pending();
    }
}

TEST_F(Sending, RefusesWhatIsNoLinkOrNoLength)
{
    const std::string before = pool_in_use();
    for (const operation& op : operations) {
        SCOPED_TRACE(op.name);
        for (const int index : {-1, 1, MAX_ETH}) { // link 1 exists, but is not open
            EXPECT_EQ(op.run(index, 8), op.plain ? 0 : -1) << index;
        }
        EXPECT_EQ(op.run(0, 0), op.run == read_now || op.run == read_later ? -1 : 0);
    }
    EXPECT_EQ(read_now(0, 1401), -1);
    EXPECT_EQ(logged("data is NULL len = 1401\n"), 1u);
    uint8_t ack = 0;
    EXPECT_EQ(RawSockSendOneMsgWithAck(requester, 0, 0, 1, 0, code_write_ack, std::span(data).first(1401)), -1);
    EXPECT_EQ(RawSockSendOneMsgWithAckWait(0, 0, 1, 0, code_write_ack, std::span(data).first(1401), &ack, 3), -1);
    EXPECT_TRUE(world.frames.empty());
    EXPECT_EQ(pool_in_use(), before);
}

TEST_F(Sending, TriesOnceMoreWhenTheSocketWouldBlock)
{
    struct {
        const char* name;
        std::vector<int> results; // of the system call: bytes, or the negative error
        int32_t end;
    } const cases[] = {
        {"once", {-EAGAIN, 94}, 0},
        {"twice", {-EAGAIN, -EAGAIN}, -1},
        {"another error is not tried again", {-ENETDOWN}, -1},
        {"nor is a short send", {93}, -1},
        {"a good one is sent once, whatever errno was", {94}, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        start();
        size_t calls = 0;
        world.on_frame = [&](std::span<const uint8_t>) -> ssize_t {
            const int result = calls < c.results.size() ? c.results[calls] : 0;
            ++calls;
            errno = result < 0 ? -result : EAGAIN;
            return result < 0 ? -1 : result;
        };
        EXPECT_EQ(operations[1].run(0, 8), c.end);
        EXPECT_EQ(calls, c.results.size());
        EXPECT_EQ(world.paused_us, c.results[0] == -EAGAIN ? 1000u : 0u);
        EXPECT_EQ(world.errors_printed, c.end == 0 ? 0 : 1);
        world.on_frame = nullptr;
        end_what_is_pending();
    }
}

} // namespace
