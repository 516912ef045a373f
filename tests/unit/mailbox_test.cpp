// The mailbox between two real threads: every job runs once, in order, with its own bytes, on one processor and on two.
#include "ap_msg/file_service.h"
#include "ap_msg/mailbox.h"
#include "ap_msg/message.h"
#include "ap_msg/picture_write.h"
#include "ap_msg/read_back.h"
#include "ap_msg/update.h"
#include "base/bytes.h"

#include <gtest/gtest.h>

#include <array>
#include <sched.h>
#include <thread>
#include <vector>

using namespace rvk;

namespace {

constexpr uint32_t jobs = 2000;
constexpr std::array<uint8_t, 3> codes{command::file_write, command::file_read, command::update};

struct ran {
    uint8_t code;
    uint32_t number, in_head;
    int update_running;
    bool operator==(const ran&) const = default;
};
std::vector<ran> all_ran;

int32_t note(uint8_t code, const mailbox_area& head, const mailbox_area& data)
{
    all_ran.push_back(
        {code, load_le32(&data[data_head_bytes]), load_le32(&head[message::addr]), gbUpdateProcessRunning});
    return 0;
}

void pin_this_thread(int processor)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(processor), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0) << "this test needs two processors";
}

int32_t put(uint32_t number)
{
    std::array<uint8_t, data_head_bytes + 4> data{};
    std::array<uint8_t, message_head_bytes> head{};
    data[message::code - message::data_head] = codes[number % 3];
    store_le32(&data[data_head_bytes], number);
    store_le32(&head[message::addr], number);
    return mailbox_put(data, head);
}

} // namespace

namespace rvk {
int32_t write_file_handle(const mailbox_area& head, const mailbox_area& data)
{
    return note(command::file_write, head, data);
}
int32_t read_file_handle(const mailbox_area& head, const mailbox_area& data)
{
    return note(command::file_read, head, data);
}
int32_t update_file_handle(const mailbox_area& head, const mailbox_area& data)
{
    return note(command::update, head, data);
}
} // namespace rvk

TEST(Mailbox, EveryJobRunsOnceAndInOrder)
{
    for (const int second_processor : {0, 1}) {
        SCOPED_TRACE(second_processor);
        all_ran.clear();
        std::thread service([=] {
            pin_this_thread(second_processor);
            for (uint32_t i = 0; i < jobs; ++i) { file_step(); }
        });
        std::thread dispatch([] {
            pin_this_thread(0);
            for (uint32_t i = 0; i < jobs; ++i) { EXPECT_EQ(put(i), 0); }
        });
        dispatch.join();
        service.join();
        ASSERT_EQ(all_ran.size(), jobs);
        for (uint32_t i = 0; i < jobs; ++i) { ASSERT_EQ(all_ran[i], (ran{codes[i % 3], i, i, i % 3 == 2 ? 1 : 0})); }
        EXPECT_EQ(gbUpdateProcessRunning, 0);
    }
}

TEST(Mailbox, ClosingTurnsAwayWhoWaitsAndWhoComes) // the last test here: it stays closed
{
    ASSERT_EQ(put(0), 0); // the slot is taken, and nobody serves it
    int32_t waiting = 0;
    std::thread dispatch([&] { waiting = put(1); });
    mailbox_close();
    dispatch.join();
    EXPECT_EQ(waiting, -1);
    EXPECT_EQ(put(2), -1);
    EXPECT_EQ(put(3), -1);
}
