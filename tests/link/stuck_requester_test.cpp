// A requester that never reads, while reports to it are sent from the link's own threads, under the link's lock: it
// loses its reports, and nobody else loses anything.
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "link/bench_daemon.h"
#include "support/log_capture.h"

#include <algorithm>
#include <cstdio>

using namespace rvk;

namespace {

constexpr uint32_t write_addr = 0x1000, read_addr = 0x20000000;
constexpr double always = 1.0;
constexpr auto patience = std::chrono::seconds(20);

class StuckRequester : public DaemonTest {
protected:
    // For sockets made from here on.
    static void set_queue_length(int messages)
    {
        FILE* const file = std::fopen("/proc/sys/net/unix/max_dgram_qlen", "we");
        ASSERT_NE(file, nullptr);
        std::fprintf(file, "%d", messages);
        ASSERT_EQ(std::fclose(file), 0);
    }
    static int32_t result_of(const std::vector<uint8_t>& answer)
    {
        return answer.empty() ? -2 : static_cast<int32_t>(load_le32(answer.data() + message::result));
    }
};

} // namespace

TEST_F(StuckRequester, KeepsNobodyElseFromAnswers)
{
    constexpr int room = 8, usual_room = 4096;
    constexpr uint32_t writes = 300; // 6 s, if each report to the stuck one were waited for
    requester stuck, other;
    set_queue_length(room);
    open_requester(stuck);
    set_queue_length(usual_room);
    open_requester(other);
    for (int i = 0; i < room; ++i) { ASSERT_TRUE(send_command(stuck, {.code = command::greeting})); }
    farm.set_faults({.loss = always});
    for (uint32_t i = 0; i < writes; ++i) {
        const uint32_t addr = write_addr + 8 * i;
        ASSERT_TRUE(
            send_command(stuck, {.code = command::write_ack, .slot = 1, .addr = addr, .len = 4}, pattern(addr, 4)));
    }
    ASSERT_TRUE(soon([&] { return farm.counts().of(fault::loss) == 3 * writes; }));
    farm.set_faults({}); // all that is left is to give up 300 writes
    uint64_t longest_us = 0;
    for (int reads = 0; reads < 50 || pending() > 0; ++reads) {
        const uint64_t from = now_us();
        ASSERT_TRUE(send_command(other, {.code = command::read, .slot = 1, .addr = read_addr, .len = 16}));
        ASSERT_EQ(result_of(other.receive(patience)), 0) << reads;
        longest_us = std::max(longest_us, now_us() - from);
    }
    EXPECT_LT(longest_us, 2'000'000u);
    const size_t lost = logged("it does not read, its queue is full");
    EXPECT_LE(lost, writes);
    EXPECT_GE(lost, writes - 1); // a queue takes one message more than its length
    size_t got = 0;
    while (!stuck.receive(std::chrono::milliseconds(0)).empty()) { ++got; }
    EXPECT_EQ(got + lost, writes + room);
    ASSERT_TRUE(send_command(stuck, {.code = command::greeting})); // reads again, is answered again
    EXPECT_EQ(result_of(stuck.receive(patience)), 0);
}
