// Sending: a peer that is gone or does not read must not cost more than its patience, nor cost others anything.
#include "platform/endpoint_folder.h"
#include "platform/local/endpoint.h"
#include "platform/platform.h"
#include "requester/requester.h"
#include "support/log_capture.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <gtest/gtest.h>
#include <memory>
#include <sys/stat.h>
#include <thread>

using namespace rvk;

namespace {

using std::chrono::milliseconds;
using clock_type = std::chrono::steady_clock;

constexpr uint32_t own = 0x010A3B00;
constexpr uint32_t first_peer = 0x010A4000;
constexpr uint32_t patient_peer = 0x010A4100; // known to no other test: who is remembered outlives one
constexpr uint8_t message[40] = {0x00, 0x3B, 0x0A, 0x01};
constexpr milliseconds patience{20};

class Send : public testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_EQ(apipc_init(own, 0), 0);
        take_log();
    }
    void TearDown() override { unique_fd{local::process_endpoint.exchange(-1)}; }

    static clock_type::duration time_to_send(uint32_t peer, int expected)
    {
        const auto start = clock_type::now();
        EXPECT_EQ(apipc_send(peer, message, sizeof message), expected);
        return clock_type::now() - start;
    }

    // Fills a peer's queue without apipc_send's knowledge.
    static void fill(uint32_t peer)
    {
        while (local::send_datagram(local::process_endpoint, peer, message) == 0) {}
    }

    // Even on a busy machine one of a few calls that do not wait takes less than the patience.
    static bool is_given_no_time(uint32_t peer)
    {
        auto best = clock_type::duration::max();
        for (int i = 0; i < 5; ++i) { best = std::min(best, time_to_send(peer, -1)); }
        return best < patience;
    }

    endpoint_folder folder;
};

} // namespace

TEST_F(Send, APeerThatIsGoneFailsAtOnce)
{
    EXPECT_EQ(apipc_send(first_peer, message, sizeof message), -1) << "never there";
    unique_fd peer;
    ASSERT_EQ(local::bind_endpoint(first_peer, peer), 0);
    EXPECT_EQ(apipc_send(first_peer, message, sizeof message), 0);
    peer.reset();
    EXPECT_EQ(apipc_send(first_peer, message, sizeof message), -1) << "died";
    EXPECT_EQ(logged("it is gone"), 2u) << log_text();
    const std::vector<uint8_t> too_long(local::datagram_bytes_max + 1);
    EXPECT_EQ(apipc_send(first_peer, too_long.data(), static_cast<uint32_t>(too_long.size())), -1);
}

TEST_F(Send, AStuckPeerCostsItsPatienceOnce)
{
    requester peer;
    ASSERT_EQ(peer.open(first_peer), endpoint_status::ok);
    fill(first_peer);
    EXPECT_GE(time_to_send(first_peer, -1), patience);
    EXPECT_TRUE(is_given_no_time(first_peer));
    EXPECT_GE(logged("its queue is full"), 2u);

    while (!peer.receive(milliseconds{0}).empty()) {}
    EXPECT_EQ(apipc_send(first_peer, message, sizeof message), 0);
    fill(first_peer);
    EXPECT_GE(time_to_send(first_peer, -1), patience) << "a send succeeded: it has its patience back";
}

TEST_F(Send, APeerThatReadsWithinItsPatienceIsServed)
{
    requester peer;
    ASSERT_EQ(peer.open(patient_peer), endpoint_status::ok);
    fill(patient_peer);
    std::thread reader([&] {
        std::this_thread::sleep_for(milliseconds{3});
        while (!peer.receive(milliseconds{200}).empty()) {}
    });
    EXPECT_EQ(apipc_send(patient_peer, message, sizeof message), 0);
    reader.join();
}

TEST_F(Send, ManyStuckPeersKeepNoHealthyOneWaiting)
{
    std::vector<std::unique_ptr<requester>> stuck;
    for (uint32_t i = 0; i < 17; ++i) {
        stuck.push_back(std::make_unique<requester>());
        ASSERT_EQ(stuck.back()->open(first_peer + 1 + i), endpoint_status::ok);
        fill(first_peer + 1 + i);
    }
    requester healthy;
    ASSERT_EQ(healthy.open(first_peer), endpoint_status::ok);
    std::vector<std::thread> senders;
    std::atomic<int> waiting{0};
    for (uint32_t i = 0; i < 3; ++i) {
        senders.emplace_back([&waiting, i] {
            ++waiting;
            time_to_send(first_peer + 1 + i, -1);
            --waiting;
        });
    }
    while (waiting < 3) { std::this_thread::yield(); }
    EXPECT_EQ(apipc_send(first_peer, message, sizeof message), 0);
    EXPECT_GT(waiting, 0) << "the healthy peer's message waited for the stuck ones";
    for (std::thread& sender : senders) { sender.join(); }

    // Sixteen are remembered: with the seventeenth the oldest has its patience back.
    for (uint32_t i = 0; i < 17; ++i) { time_to_send(first_peer + 1 + i, -1); }
    EXPECT_TRUE(is_given_no_time(first_peer + 17));
}
