// Links that are down, gone, or were never there: nobody waits, nothing spins, and what comes back works.
#include "base/counters.h"
#include "base/pause.h"
#include "eth_raw/link.h"
#include "eth_raw/raw_sock.h"
#include "link/bench_link.h"
#include "link/requests.h"
#include "raw_msg/link_threads.h"
#include "raw_msg/send_ack.h"
#include "raw_msg/send_plain.h"
#include "raw_msg/send_read.h"
#include "support/log_capture.h"

#include <array>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>

using namespace rvk;

namespace {

using enum request_kind;

constexpr uint32_t addr = 0x1000;
constexpr double always = 1.0;

void run_ip(const std::string& arguments) { ASSERT_EQ(std::system(("ip " + arguments).c_str()), 0) << arguments; }

uint64_t cpu_time_us(pthread_t thread)
{
    clockid_t clock{};
    timespec used{};
    EXPECT_EQ(pthread_getcpuclockid(thread, &clock), 0);
    EXPECT_EQ(clock_gettime(clock, &used), 0);
    return static_cast<uint64_t>(used.tv_sec) * 1'000'000 + static_cast<uint64_t>(used.tv_nsec) / 1000;
}

class LinkState : public LinkTest {
protected:
    void go_up()
    {
        run_ip("link set eth0 up");
        ASSERT_TRUE(soon([] { return has_carrier("eth0") && has_carrier("card0"); }));
    }
};

// Every kind of request on a link that cannot work: refused at once, nothing left over.
void expect_refusals(int index)
{
    constexpr uint32_t ticks = 1000;
    SCOPED_TRACE("link " + std::to_string(index));
    std::array<uint8_t, 1400> area{};
    uint32_t got = 0;
    uint8_t ack = 0;
    const uint64_t from = now_us();
    EXPECT_EQ(RawSockSendMsgWithReadWait(index, 0, 1, addr, 0, 4, area, &got, ticks), -1);
    EXPECT_EQ(RawSockSendMsgWithAckWait(index, 0, 1, addr, 0x11, area, &ack, ticks), -1);
    EXPECT_EQ(RawSockSendMsgWithAck(7, index, 0, 1, addr, 0x11, area), -1);
    EXPECT_EQ(RawSockSendMsgWithRead(7, index, 0, 1, addr, 0, 4, area), -1);
    EXPECT_EQ(RawSockSendMsg(index, 0, 1, addr, 1, area), 0);
    EXPECT_LT(now_us() - from, 5'000'000u);
}

} // namespace

TEST_F(LinkState, ComesBackAfterItWasDown)
{
    constexpr uint64_t down_us = 500'000, enough_us = 100'000;
    for (size_t round = 1; round <= 3; ++round) {
        const uint64_t used = cpu_time_us(receive_thread());
        run_ip("link set eth0 down");
        EXPECT_TRUE(soon([&] { return logged("receive failed") == round; })) << log_text();
        const uint64_t failed = link_count[0].send_failed[send_failure::link_down].get();
        const auto r = run_request(waited_read, addr, 4, 1000);
        EXPECT_EQ(r.result, -1);
        EXPECT_LT(r.took_us, 5'000'000u);
        EXPECT_EQ(link_count[0].send_failed[send_failure::link_down].get(), failed + 1);
        EXPECT_EQ(run_request(reported_write, addr, 4).result, -1);
        pause_us(down_us);
        EXPECT_LT(cpu_time_us(receive_thread()) - used, enough_us);
        go_up();
        EXPECT_TRUE(soon([] { return run_request(waited_read, addr, 4).result == 0; }, 5000));
        EXPECT_EQ(logged("receive failed"), round);
        EXPECT_EQ(logged("receives again"), round);
    }
    EXPECT_TRUE(take_messages().empty());
}

// Requests that are pending meanwhile are resent into nowhere and given up, or live on when it is short.
TEST_F(LinkState, GoesDownUnderPendingRequests)
{
    farm.set_faults({.loss = always}); // for as long as taking the link down may last
    ASSERT_EQ(run_request(reported_write, addr, 4).result, 0);
    ASSERT_EQ(run_request(reported_read, addr + 4, 4).result, 0);
    ASSERT_TRUE(soon([&] { return farm.counts().of(fault::loss) >= 2; }));
    run_ip("link set eth0 down");
    EXPECT_TRUE(soon([] { return pending() == 0; }));
    go_up();
    const auto messages = take_messages();
    EXPECT_EQ(heard_about(addr, messages) + heard_about(addr + 4, messages), "failedfailed");
    farm.set_faults({.loss = always});
    ASSERT_EQ(run_request(reported_write, addr + 8, 4).result, 0);
    farm.set_faults({});
    EXPECT_TRUE(soon([] { return pending() == 0; }));
    EXPECT_EQ(heard_about(addr + 8, take_messages()), "");
}

TEST_F(LinkState, ThatIsNotThereRefusesAtOnce)
{
    pthread_t receive{}, check{};
    run_ip("link del eth2");
    EXPECT_EQ(RawMsgModuleInit(2, &receive, &check), 0);
    EXPECT_EQ(logged("get inferface flag failed."), 1u);
    EXPECT_EQ(logged("init_netdev(2) failed(-1)."), 1u);
    EXPECT_EQ(logged("index=2"), 0u); // no thread
    EXPECT_EQ(RawMsgModuleInit(3, &receive, &check), 0);
    EXPECT_EQ(RawMsgModuleInit(-1, &receive, &check), 0);
    for (const int index : {1, 2, 3, -1}) { expect_refusals(index); } // 1 was never opened
    EXPECT_EQ(logged("(eth2) is not open"), 1u);
    for (const int index : {1, 2, 3, -1}) { RawSockMsgUnInit(index); }
    EXPECT_NE(fcntl(STDIN_FILENO, F_GETFD), -1);            // a record that is all zero owns no descriptor
    EXPECT_EQ(run_request(waited_read, addr, 4).result, 0); // link 0 goes on
}

// The interface is removed under an open link, then its socket goes: each receive fails, and takes its time over it.
TEST_F(LinkState, ThatWasRemovedDoesNotSpin)
{
    ASSERT_EQ(RawSockMsgInit(1), 0);
    run_ip("link del eth1");
    expect_refusals(1);
    const uint64_t from = now_us();
    for (int i = 0; i < 5; ++i) {
        uint8_t ack = 0, slot = 0, code = 0;
        uint16_t model = 0, seq = 0, len = 0;
        uint32_t answered_addr = 0;
        EXPECT_EQ(RawSockMsgRecv(1, &ack, &model, &slot, &answered_addr, &code, &seq, &len), nullptr);
        RawSockMsgUnInit(1); // the kernel reports a removed interface once
    }
    EXPECT_GE(now_us() - from, 5 * 100'000u);
    EXPECT_EQ(logged("link 1 (eth1): receive failed"), 1u);
    expect_refusals(1);
}
