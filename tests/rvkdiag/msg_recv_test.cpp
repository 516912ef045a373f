// One reply handed to a hook. It reads link 0 itself, so this program has no receive thread there.
#include "main/reg.h"

#include "cardsim/link.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "eth_raw/raw_sock.h"
#include "mem/mem.h"

#include <gtest/gtest.h>

#include <vector>

using namespace rvk;

namespace {

struct reply_taken {
    int calls = 0;
    uint32_t addr = 0;
    std::vector<uint8_t> payload;
} taken;

void take(const uint8_t* payload, uint32_t addr, uint16_t len)
{
    ++taken.calls;
    taken.addr = addr;
    taken.payload.assign(payload, payload + len);
}

} // namespace

TEST(MsgRecv, HandsOverTheFirstReplyAndNoForeignFrame)
{
    constexpr uint32_t addr = 0x1000000;
    card_farm farm({.foreign = 1, .runt = 1});
    card_link cards(farm);
    ASSERT_EQ(cards.start(), "");
    farm.write({3, 2}, addr, std::vector<uint8_t>{1, 2, 3, 4, 5});
    mem_init();
    ASSERT_EQ(RawSockMsgInit(0), 0);
    uint8_t* request = RawMsgBuffGet(frame_data_min);
    ASSERT_GT(RawSockMsgSend(0, 3, 2, addr, code_read, 7, request, 5), 0);
    RawMsgBuffFree(request);
    taken = {};
    read_buffer = take;
    EXPECT_EQ(msg_recv(), 0);
    EXPECT_EQ(taken.calls, 1);
    EXPECT_EQ(taken.addr, addr);
    EXPECT_EQ(taken.payload, (std::vector<uint8_t>{1, 2, 3, 4, 5}));
    EXPECT_EQ(farm.counts().of(fault::foreign) + farm.counts().of(fault::runt), 2u);
    RawSockMsgUnInit(0);
}
