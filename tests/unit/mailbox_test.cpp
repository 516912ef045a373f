// The mailbox between two real threads: every job runs once, in order, with its own bytes, on one processor and on two,
// however either thread is held up.
#include "ap_msg/file_service.h"
#include "ap_msg/mailbox.h"
#include "ap_msg/message.h"
#include "ap_msg/picture_write.h"
#include "ap_msg/read_back.h"
#include "ap_msg/update.h"
#include "base/bytes.h"
#include "base/pause.h"

#include <gtest/gtest.h>

#include <random>
#include <sched.h>
#include <thread>

using namespace rvk;

namespace {

constexpr uint32_t jobs = 2000;
constexpr std::array<uint8_t, 3> codes{command::file_write, command::file_read, command::update};
uint32_t done; // the service's
std::mt19937 service_dice;

void hold_up(std::mt19937* dice)
{
    const uint32_t drawn = (*dice)() % 8;
    if (drawn == 0) { pause_us((*dice)() % 100); }
    if (drawn == 1) { sched_yield(); }
}

int32_t note(uint8_t code, const mailbox_area& head, const mailbox_area& data)
{
    hold_up(&service_dice);
    EXPECT_EQ(load_le32(&data[data_head_bytes]), done);
    EXPECT_EQ(load_le32(&head[message::addr]), done);
    EXPECT_EQ(code, codes[done % 3]);
    EXPECT_EQ(gbUpdateProcessRunning, code == command::update ? 1 : 0);
    ++done;
    return 0;
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

void pin_this_thread(int processor)
{
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(static_cast<size_t>(processor), &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0) << "this test needs two processors";
}

} // namespace

namespace rvk { // in the jobs' place
int32_t write_file_handle(const mailbox_area& h, const mailbox_area& d) { return note(command::file_write, h, d); }
int32_t read_file_handle(const mailbox_area& h, const mailbox_area& d) { return note(command::file_read, h, d); }
int32_t update_file_handle(const mailbox_area& h, const mailbox_area& d) { return note(command::update, h, d); }
} // namespace rvk

TEST(Mailbox, LosesNoJob)
{
    for (uint32_t seed = 0; seed < 4 && !HasFailure(); ++seed) {
        SCOPED_TRACE(seed);
        done = 0;
        service_dice.seed(seed);
        std::thread service([seed] {
            pin_this_thread(seed % 2);
            for (uint32_t i = 0; i < jobs; ++i) { file_step(); }
        });
        std::thread dispatch([seed] {
            pin_this_thread(0);
            std::mt19937 dice(seed + 100);
            for (uint32_t i = 0; i < jobs; ++i) {
                hold_up(&dice);
                EXPECT_EQ(put(i), 0);
            }
        });
        dispatch.join();
        service.join();
        EXPECT_EQ(done, jobs);
        EXPECT_EQ(gbUpdateProcessRunning, 0);
    }
}

TEST(Mailbox, ClosingTurnsAwayWhoWaitsAndWhoComes) // the last test here: it stays closed
{
    ASSERT_EQ(put(0), 0); // the slot is taken, and nobody serves it
    int32_t waiting = 0;
    std::thread dispatch([&] { waiting = put(1); });
    EXPECT_TRUE(mailbox_close()); // whoever closes it answers the job in the slot
    dispatch.join();
    EXPECT_EQ(waiting, -1);
    EXPECT_EQ(put(2), -1);
    EXPECT_EQ(put(3), -1);
}
