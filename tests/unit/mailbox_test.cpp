// The mailbox between two real threads: every job runs once, in order, with its own bytes, on one processor and on two,
// however either thread is held up.
#include "ap_msg/file_service.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/clock.h"

#include <gtest/gtest.h>

#include <functional>
#include <random>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

using namespace rvk;

namespace {

constexpr std::array<uint8_t, 3> codes{command::file_write, command::file_read, command::update};
uint32_t done; // the service's, as its dice
std::mt19937 service_dice;

void hold_up(std::mt19937* dice)
{
    if (const auto drawn = (*dice)() % 80; drawn < 10) { pause_us(10 * drawn); }
}

int32_t note(uint8_t code, const received_command& c)
{
    hold_up(&service_dice);
    EXPECT_TRUE(load_le32(c.payload.data()) == done && c.addr == done) << done;
    EXPECT_EQ(code, codes[done++ % 3]);
    EXPECT_EQ(gbUpdateProcessRunning, code == command::update ? 1 : 0);
    return 0;
}

int32_t put(uint32_t number)
{
    std::array<uint8_t, message::payload + 4> m{};
    m[message::code] = codes[number % 3];
    m[message::len] = 4;
    store_le32(&m[message::addr], number);
    store_le32(&m[message::payload], number);
    return mailbox_put(std::span(m).subspan(message::data_head), std::span(m).first(message_head_bytes));
}

// Two thousand jobs of a dispatch on the first processor and a service on the second, or on the same; bits name them.
void play(uint32_t seed, uint64_t processor)
{
    const auto run_on = [](uint64_t where, const std::function<void(uint32_t)>& step) {
        ASSERT_GT(syscall(SYS_sched_setaffinity, 0, sizeof where, &where), -1) << "this test needs two processors";
        for (uint32_t i = 0; i < 2000; ++i) { step(i); }
    };
    std::mt19937 dice(seed);
    service_dice.seed(~seed);
    done = 0;
    std::thread service(run_on, processor, [](uint32_t) { file_step(); });
    run_on(1, [&](uint32_t i) { hold_up(&dice), static_cast<void>(put(i)); });
    service.join();
    EXPECT_EQ(done, 2000u);
}

} // namespace

namespace rvk { // in the jobs' place
int32_t write_file_handle(const received_command& c) { return note(command::file_write, c); }
int32_t read_file_handle(const received_command& c) { return note(command::file_read, c); }
int32_t update_file_handle(const received_command& c) { return note(command::update, c); }
} // namespace rvk

TEST(Mailbox, LosesNoJob)
{
    for (uint32_t seed = 0; seed < 4 && !HasFailure(); ++seed) { play(seed, 1 + seed % 2); }
    EXPECT_EQ(gbUpdateProcessRunning, 0);
    // Closed, it turns away who waits and who comes.
    ASSERT_EQ(put(0), 0); // the slot is taken, and nobody serves it
    int32_t waiting = 0;
    std::thread dispatch([&] { waiting = put(1); });
    EXPECT_TRUE(mailbox_close()); // whoever closes it answers the job in the slot
    dispatch.join();
    EXPECT_TRUE(waiting == -1 && put(2) == -1 && put(3) == -1);
}
