// A queue with as many requests as it takes: who waits for room, who makes room, and what becomes of those inside.
#include "ap_msg/message.h"
#include "eth_raw/frame.h"
#include "queue/queue.h"
#include "raw_msg/filing.h"
#include "raw_msg/link_lock.h"
#include "raw_msg/send_ack.h"
#include "raw_msg/send_read.h"
#include "sim/outside.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <array>

using namespace rvk;

namespace {

void fill(int queue)
{
    const auto missing = queue_nodes_max - Qcount[0][queue];
    for (int32_t i = 0; i < missing; ++i) {
        ASSERT_EQ(queue_add(0, queue, make_node(0, 0xF000, static_cast<uint16_t>(i), nullptr, 94)), 0);
    }
}

void drop_all(int queue)
{
    const scoped_lock hold(find_check_mtx[0]);
    queue_empty(0, queue);
}

class QueueFull : public testing::Test {
protected:
    QueueFull() : before(pool_in_use())
    {
        reset_outside();
        take_log();
    }
    ~QueueFull() override
    {
        for (int queue = 0; queue < queue_numbers; ++queue) { drop_all(queue); }
        EXPECT_EQ(filed(), 0);
        EXPECT_EQ(pool_in_use(), before);
    }
    std::string before;
};

TEST_F(QueueFull, TakesNoMoreUntilOneIsDeleted)
{
    fill(ACK_QUEUE);
    QNode* oldest = Qlist[0][ACK_QUEUE];
    QNode* extra = make_node(0, 1, 1, nullptr, 94);
    EXPECT_EQ(queue_add(0, ACK_QUEUE, extra), -1);
    EXPECT_EQ(logged("queue is full\n"), 1u);
    EXPECT_EQ(filed(), queue_nodes_max);
    EXPECT_EQ(queue_del(0, ACK_QUEUE, &oldest), 0);
    EXPECT_EQ(queue_add(0, ACK_QUEUE, extra), 0);
    EXPECT_EQ(filed(), queue_nodes_max);
}

TEST_F(QueueFull, AWriteWaitsForRoomWithoutLimit)
{
    fill(ACK_QUEUE);
    int pauses = 0;
    world.on_pause = [&](uint64_t us) {
        EXPECT_EQ(us, 10'000u);
        EXPECT_TRUE(world.frames.empty());
        QNode* oldest = Qlist[0][ACK_QUEUE];
        if (++pauses == 20) { queue_del(0, ACK_QUEUE, &oldest); }
    };
    EXPECT_EQ(RawSockSendMsgWithAck(7, 0, 0, 1, 0x1000, code_write_ack, std::array<uint8_t, 4>{}), 0);
    EXPECT_EQ(pauses, 20);
    receive(pack({code_write_ack, ack_good, 0x1000, 0, {}}));
    EXPECT_EQ(filed(), queue_nodes_max - 1);
    EXPECT_TRUE(world.messages.empty());
}

TEST_F(QueueFull, WaitingKindsTryOnceMoreThenEmptyTheQueue)
{
    struct {
        int queue;
        const char* line;
    } const cases[] = {
        {ACK_WAIT_QUEUE, "RawSockSendOneMsgWithAckWait : queue_add ACK_WAIT_QUEUE fail\n"},
        {READ_WAIT_QUEUE, "RawSockSendMsgWithReadWait : queue_add READ_WAIT_QUEUE fail\n"},
    };
    for (const bool room_comes : {true, false}) {
        for (const auto& c : cases) {
            SCOPED_TRACE(c.line);
            reset_outside();
            take_log();
            fill(c.queue);
            world.on_pause = [&](uint64_t us) {
                EXPECT_EQ(us, 1000u);
                QNode* oldest = Qlist[0][c.queue];
                if (room_comes) { queue_del(0, c.queue, &oldest); }
            };
            const bool writes = c.queue == ACK_WAIT_QUEUE;
            std::array<uint8_t, 4> bytes{};
            world.on_wait = [&] {
                EXPECT_EQ(filed(), room_comes ? queue_nodes_max : 1);
                receive(pack({writes ? code_write_ack : code_read, ack_good, 0x1000, 0, bytes}));
            };
            uint8_t ack = 0;
            uint32_t len = 0;
            EXPECT_EQ(writes ? RawSockSendMsgWithAckWait(0, 0, 1, 0x1000, code_write_ack, bytes, &ack, 3)
                             : RawSockSendMsgWithReadWait(0, 0, 1, 0x1000, code_read, 4, bytes, &len, 3),
                      0);
            EXPECT_EQ(logged(c.line), 1u);
            EXPECT_EQ(logged("queue_add fail again after 1ms, empty queue and send again\n"), room_comes ? 0u : 1u);
            drop_all(c.queue);
        }
    }
}

// One sender is held inside its send while another empties the queue: what the first one filed is its own to give back,
// answered meanwhile or not.
TEST_F(QueueFull, ASenderGivesBackWhatWasEmptiedUnderIt)
{
    for (const bool answered : {false, true}) {
        SCOPED_TRACE(answered);
        reset_outside();
        const std::string at_start = pool_in_use();
        const auto read = [] {
            uint8_t* dest = ApMsgBuffGet(frame_data_max);
            return RawSockSendMsgWithRead(7, 0, 0, 1, 0x1000, code_read, 4, {dest, frame_data_max});
        };
        world.after_send = [&] {
            world.after_send = nullptr;
            if (answered) { receive(pack({code_read, ack_good, 0x1000, 0, std::array<uint8_t, 4>{}})); }
            fill(READ_QUEUE);
            EXPECT_EQ(read(), 0);
            EXPECT_EQ(filed(), 1);
        };
        EXPECT_EQ(read(), 0);
        EXPECT_EQ(filed(), 1);
        EXPECT_TRUE(world.messages.empty()); // emptied requests simply disappear
        receive(pack({code_read, ack_good, 0x1000, 1, std::array<uint8_t, 4>{}}));
        EXPECT_EQ(world.messages.size(), 1u);
        EXPECT_EQ(pool_in_use(), at_start);
    }
}

} // namespace
