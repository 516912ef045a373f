#include "link/bench_link.h"

#include "base/pause.h"
#include "eth_raw/frame.h"
#include "queue/queue.h"
#include "raw_msg/link_threads.h"
#include "raw_msg/send_read.h"
#include "support/log_capture.h"
#include "timer/timer.h"

#include <csignal>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace rvk {
namespace {

constexpr uint32_t fence_addr = 0xFFFFFF00; // of reads that only show that everything before them was received
constexpr size_t trail_frames = 1000, history_frames = 200'000;
constexpr uint32_t fence_ticks = 3;
constexpr int cards_priority = 80; // below the daemon, but no ordinary thread of other programs may hold answers back

struct link_thread_pair {
    pthread_t receive{}, check{};
};

const link_thread_pair& threads_of_link_0()
{
    static const link_thread_pair threads = [] {
        link_thread_pair started;
        sigset_t ticks; // as in the daemon: for the check thread only
        sigemptyset(&ticks);
        sigaddset(&ticks, SIGALRM);
        pthread_sigmask(SIG_BLOCK, &ticks, nullptr);
        queue_init();
        mem_init();
        EXPECT_EQ(initTimer(), 0);
        EXPECT_EQ(RawMsgModuleInit(0, &started.receive, &started.check), 0);
        return started;
    }();
    return threads;
}

bool fence()
{
    std::array<uint8_t, frame_data_max> data{};
    uint32_t got = 0;
    return RawSockSendMsgWithReadWait(0, 0, near_card.slot, fence_addr, code_read, 4, data, &got, fence_ticks) == 0;
}

} // namespace

uint64_t now_us()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

bool soon(const std::function<bool()>& condition, uint64_t bound_ms)
{
    const uint64_t end = now_us() + bound_ms * 1000;
    while (!condition()) {
        if (now_us() > end) { return false; }
        pause_ms(1);
    }
    return true;
}

std::vector<uint8_t> pattern(uint32_t addr, size_t len)
{
    std::vector<uint8_t> bytes(len);
    for (size_t i = 0; i < len; ++i) {
        const uint32_t x = (addr + static_cast<uint32_t>(i)) * 2'654'435'761u;
        bytes[i] = static_cast<uint8_t>(x >> 24 | 1);
    }
    return bytes;
}

std::array<int32_t, mem_classes> blocks_in_use()
{
    std::array<int32_t, mem_classes> blocks{};
    for (size_t type = 0; type < mem_classes; ++type) { blocks[type] = mem_in_use(static_cast<int>(type)); }
    return blocks;
}

int32_t pending()
{
    int32_t sum = 0;
    for (int queue = 0; queue < queue_numbers; ++queue) {
        const scoped_lock hold(mtx[0][queue]);
        sum += Qcount[0][queue];
        if ((Qcount[0][queue] == 0) != (Qlist[0][queue] == nullptr)) { ADD_FAILURE() << "queue " << queue; }
    }
    return sum;
}

bool has_carrier(const char* interface)
{
    const unique_fd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ifreq asked{};
    strncpy(asked.ifr_name, interface, sizeof asked.ifr_name - 1);
    return ioctl(fd.get(), SIOCGIFFLAGS, &asked) == 0 && (asked.ifr_flags & IFF_RUNNING) != 0;
}

void LinkTest::SetUp()
{
    static_cast<void>(threads_of_link_0());
    farm.keep_trail(trail_frames);
    restart_cards({.priority = cards_priority});
    ASSERT_TRUE(soon(fence, 5000)) << "no way to the cards";
    farm.record_history(history_frames);
    blocks_before = blocks_in_use();
    static_cast<void>(take_log());
}

void LinkTest::TearDown()
{
    EXPECT_TRUE(soon([] { return pending() == 0; })) << pending() << " requests left";
    EXPECT_EQ(blocks_in_use(), blocks_before);
    EXPECT_EQ(farm.counts().refusals(), "none");
    EXPECT_EQ(logged("assert") + logged("second release"), 0u) << log_text();
    cards.stop();
    EXPECT_EQ(cards.dropped(), 0u);
    if (!HasFailure()) { return; }
    const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string name = std::string(test->test_suite_name()) + '.' + test->name() + ".pcap";
    const std::string error = farm.write_pcap(name);
    std::printf("\n%s\n", error.empty() ? ("the last frames: " + std::filesystem::absolute(name).string()).c_str()
                                        : error.c_str());
}

void LinkTest::restart_cards(const link_options& options)
{
    cards.stop();
    ASSERT_EQ(cards.start(options), "");
}

std::vector<sent_frame> LinkTest::frames_to(uint32_t addr)
{
    std::vector<sent_frame> found;
    for (const recorded_request& request : farm.history()) {
        sent_frame frame{request.time_us, {}, request.lost};
        if (check_request(request.frame, frame.fields) != verdict::good || frame.fields.addr != addr) { continue; }
        frame.fields.data = {};
        found.push_back(frame);
    }
    return found;
}

// An answer that is due was handed out to the cards' thread before it took the fence's request: order says the rest.
void LinkTest::settle_down()
{
    ASSERT_TRUE(soon([] { return pending() == 0; })) << pending() << " requests do not end";
    ASSERT_TRUE(soon([&] { return !farm.next_due_us(); }));
    farm.set_faults({});
    ASSERT_TRUE(soon(fence, 5000));
}

pthread_t LinkTest::receive_thread() { return threads_of_link_0().receive; }

} // namespace rvk
