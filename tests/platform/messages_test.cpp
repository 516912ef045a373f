// What reaches the callback and what is dropped; and what a peer costs that is gone or does not read.
#include "base/bytes.h"
#include "platform/endpoint_folder.h"
#include "platform/local/endpoint.h"
#include "platform/platform.h"
#include "support/log_capture.h"

#include <algorithm>
#include <chrono>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <thread>

using namespace rvk;

namespace {

using clock_type = std::chrono::steady_clock;
using bytes = std::vector<uint8_t>;

constexpr uint32_t own = 0x010A3B00, peer = 0x010A7F01;
constexpr std::chrono::milliseconds patience{20}; // that a peer has
std::vector<bytes> delivered;

int keep(int, int, const void* message, int length)
{
    delivered.emplace_back(static_cast<const uint8_t*>(message), static_cast<const uint8_t*>(message) + length);
    return 0;
}

bytes message_from(uint32_t sender, size_t size = 40)
{
    bytes out(std::max<size_t>(size, 4), 0x5A);
    store_le32(out.data(), sender);
    out.resize(size);
    return out;
}

bytes send_raw(int fd, const bytes& message)
{
    sockaddr_un to;
    EXPECT_TRUE(local::endpoint_address(own, to));
    const auto* generic = reinterpret_cast<const sockaddr*>(&to);
    EXPECT_EQ(sendto(fd, message.data(), message.size(), 0, generic, sizeof to), static_cast<ssize_t>(message.size()));
    return message;
}

// The process's endpoint and a peer. A receive ends with an error when nothing has come for 50 ms.
class Messages : public testing::Test {
protected:
    void SetUp() override
    {
        delivered.clear();
        ASSERT_EQ(apipc_init(own, 0), 0);
        ASSERT_EQ(local::bind_endpoint(peer, client), 0);
        const timeval at_most{0, 50'000};
        ASSERT_EQ(setsockopt(local::process_endpoint, SOL_SOCKET, SO_RCVTIMEO, &at_most, sizeof at_most), 0);
        take_log();
    }
    void TearDown() override { unique_fd{local::process_endpoint.exchange(-1)}; }

    // Whatever has come by now; a receive error behind it.
    static void deliver() { EXPECT_LT(apipc_loop_wait(0, keep), 0); }

    static int send(uint32_t to) { return apipc_send(to, message_from(own).data(), 40); }
    static void fill(uint32_t to)
    {
        while (local::send_datagram(local::process_endpoint, to, message_from(own)) == 0) {}
    }
    void drain() const
    {
        uint8_t byte = 0;
        while (recv(client.get(), &byte, 1, MSG_DONTWAIT) > 0) {}
    }
    static clock_type::duration time_to_fail(uint32_t to)
    {
        const auto start = clock_type::now();
        EXPECT_EQ(send(to), -1);
        return clock_type::now() - start;
    }
    // Even on a busy machine one of a few calls that do not wait takes less than the patience.
    static bool is_given_no_time(uint32_t to)
    {
        auto best = clock_type::duration::max();
        for (int i = 0; i < 5; ++i) { best = std::min(best, time_to_fail(to)); }
        return best < patience;
    }

    endpoint_folder folder;
    unique_fd client;
};

TEST_F(Messages, WhatIsTooLongOrLiesIsDroppedAndLogged)
{
    send_raw(client.get(), message_from(peer, local::datagram_bytes_max + 1));
    send_raw(client.get(), message_from(peer + 1)); // another's name
    send_raw(client.get(), message_from(own));      // the receiver's own
    send_raw(client.get(), message_from(peer, 3));  // no first word
    const unique_fd nameless{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    send_raw(nameless.get(), message_from(peer));
    std::vector<bytes> good{send_raw(client.get(), message_from(peer, local::datagram_bytes_max)),
                            send_raw(client.get(), message_from(peer, 4))};
    setenv("APIPC_DIR", (folder.path + "/.").c_str(), 1); // another spelling of the same
    unique_fd other;
    ASSERT_EQ(local::bind_endpoint(peer + 2, other), 0);
    good.push_back(send_raw(other.get(), message_from(peer + 2)));
    deliver();
    EXPECT_TRUE(delivered == good);
    EXPECT_EQ(logged("dropped"), 5u) << log_text();
    const bytes too_long = message_from(own, local::datagram_bytes_max + 1);
    EXPECT_EQ(apipc_send(peer, too_long.data(), static_cast<uint32_t>(too_long.size())), -1);
}

TEST_F(Messages, AnErrorThatStaysIsSlowAndLoggedOnce)
{
    for (size_t n = 1; n <= 2; ++n) {
        send_raw(client.get(), message_from(peer));
        const auto start = clock_type::now();
        for (int i = 0; i < 4; ++i) { deliver(); } // each ends with an error, 50 ms after the last that came
        EXPECT_GE(clock_type::now() - start, std::chrono::milliseconds(4 * 50 + 10 + 20 + 40 + 80));
        EXPECT_EQ(delivered.size(), n);
        EXPECT_EQ(logged("no messages can be received"), n) << log_text();
    }
}

TEST_F(Messages, APeerThatIsGoneFailsAtOnceAndAStuckOneCostsItsPatienceOnce)
{
    unique_fd dies;
    EXPECT_EQ(send(peer + 1), -1) << "never there";
    ASSERT_EQ(local::bind_endpoint(peer + 1, dies), 0);
    EXPECT_EQ(send(peer + 1), 0);
    dies.reset();
    EXPECT_EQ(send(peer + 1), -1);
    EXPECT_EQ(logged("it is gone"), 2u) << log_text();
    fill(peer);
    EXPECT_GE(time_to_fail(peer), patience);
    EXPECT_TRUE(is_given_no_time(peer));
    drain();
    EXPECT_EQ(send(peer), 0);
    fill(peer);
    EXPECT_GE(time_to_fail(peer), patience) << "a send succeeded: it has its patience back";
}

TEST_F(Messages, ManyStuckPeersAreRememberedAndKeepNoHealthyOneWaiting)
{
    int beside = 0; // messages to a healthy peer that went out while a stuck one was waited for
    std::array<unique_fd, 40> stuck;
    for (uint32_t i = 0; i < stuck.size(); ++i) {
        ASSERT_EQ(local::bind_endpoint(peer + 1 + i, stuck[i]), 0);
        fill(peer + 1 + i);
        std::atomic<bool> over{false};
        std::thread sender([&] { time_to_fail(peer + 1 + i), over = true; });
        std::this_thread::sleep_for(patience / 4);
        beside += send(peer) == 0 && !over;
        sender.join();
        drain();
    }
    EXPECT_GE(beside, 10);
    int remembered = 0; // on a busy machine some take long all the same
    for (uint32_t i = 0; i < stuck.size(); ++i) { remembered += time_to_fail(peer + 1 + i) < patience; }
    EXPECT_GE(remembered, 20);
}

} // namespace
