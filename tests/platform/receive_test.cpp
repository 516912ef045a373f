// What reaches the callback, what is dropped, and what an error costs.
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "platform/endpoint_folder.h"
#include "platform/local/endpoint.h"
#include "platform/platform.h"
#include "requester/requester.h"
#include "support/log_capture.h"

#include <chrono>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

using namespace rvk;

namespace {

constexpr uint32_t own = 0x010A3B00;

std::vector<std::vector<uint8_t>> delivered;

int keep(int, int, const void* message, int length)
{
    const auto* bytes = static_cast<const uint8_t*>(message);
    delivered.emplace_back(bytes, bytes + length);
    return 0;
}

std::vector<uint8_t> message_from(uint32_t sender, size_t bytes)
{
    std::vector<uint8_t> out(bytes, 0x5A);
    if (bytes >= 4) { store_le32(out.data(), sender); }
    return out;
}

// The process's endpoint. A receive ends with an error when nothing has come for 50 ms, so that a test goes on.
class Receive : public testing::Test {
protected:
    void SetUp() override
    {
        delivered.clear();
        ASSERT_EQ(apipc_init(own, 0), 0);
        const timeval patience{0, 50'000};
        ASSERT_EQ(setsockopt(local::process_endpoint, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);
        ASSERT_EQ(client.open_free(1), endpoint_status::ok);
        take_log();
    }
    void TearDown() override { unique_fd{local::process_endpoint.exchange(-1)}; }

    // Whatever has come by now.
    static void deliver() { EXPECT_LT(apipc_loop_wait(0, keep), 0); }

    endpoint_folder folder;
    requester client;
};

} // namespace

TEST_F(Receive, TheLongestMessagePassesUnchanged)
{
    const std::vector<uint8_t> longest = message_from(client.identity(), message_bytes_max);
    ASSERT_EQ(client.send(own, longest), endpoint_status::ok);
    ASSERT_EQ(client.send(own, message_from(client.identity(), 4)), endpoint_status::ok);
    deliver();
    ASSERT_EQ(delivered.size(), 2u);
    EXPECT_TRUE(delivered[0] == longest);
    EXPECT_EQ(delivered[1].size(), 4u);
    EXPECT_EQ(client.send(own, message_from(client.identity(), message_bytes_max + 1)),
              endpoint_status::message_too_long);
}

TEST_F(Receive, WhatIsTooLongOrLiesIsDroppedAndLogged)
{
    sockaddr_un address;
    ASSERT_TRUE(local::endpoint_address(own, address));
    const auto* generic = reinterpret_cast<const sockaddr*>(&address);
    const auto raw_send = [&](int fd, const std::vector<uint8_t>& m) {
        EXPECT_EQ(sendto(fd, m.data(), m.size(), 0, generic, sizeof address), static_cast<ssize_t>(m.size()));
    };
    raw_send(client.descriptor(), message_from(client.identity(), message_bytes_max + 1));
    raw_send(client.descriptor(), message_from(client.identity() + 1, 40)); // another's name
    raw_send(client.descriptor(), message_from(own, 40));                   // the receiver's own
    raw_send(client.descriptor(), message_from(0, 3));                      // no first word
    const unique_fd nameless{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    raw_send(nameless.get(), message_from(client.identity(), 40));
    raw_send(client.descriptor(), message_from(client.identity(), 40));
    deliver();
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(delivered[0].size(), 40u);
    EXPECT_EQ(logged("dropped"), 5u) << log_text();
}

// The longest path a socket may be bound to leaves no room for its terminator; its file's name counts all the same.
TEST_F(Receive, ASenderWhosePathFillsItsAddressIsKnown)
{
    sockaddr_un from{}, to;
    const std::string name = "/010a7f77.sock";
    std::string path = folder.path + "/";
    path.append(sizeof from.sun_path - path.size() - name.size(), 'x');
    ASSERT_TRUE(std::filesystem::create_directory(path));
    path += name;
    from.sun_family = AF_UNIX;
    ASSERT_EQ(path.copy(from.sun_path, sizeof from.sun_path), sizeof from.sun_path);
    const unique_fd sender{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    ASSERT_EQ(bind(sender.get(), reinterpret_cast<const sockaddr*>(&from), sizeof from), 0);
    ASSERT_TRUE(local::endpoint_address(own, to));
    const auto message = message_from(0x010A7F77, 40);
    ASSERT_EQ(sendto(sender.get(), message.data(), 40, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to), 40);
    deliver();
    EXPECT_EQ(delivered.size(), 1u) << log_text();
}

TEST_F(Receive, AFolderSpelledOtherwiseIsTheSameSender)
{
    setenv("APIPC_DIR", (folder.path + "/.").c_str(), 1);
    requester other;
    ASSERT_EQ(other.open_free(1), endpoint_status::ok);
    ASSERT_EQ(other.send(own, message_from(other.identity(), 40)), endpoint_status::ok);
    deliver();
    EXPECT_EQ(delivered.size(), 1u);
}

TEST_F(Receive, AnErrorThatStaysIsSlowAndLoggedOnce)
{
    ASSERT_EQ(client.send(own, message_from(client.identity(), 40)), endpoint_status::ok);
    deliver(); // one message, and the first error behind it: 10 ms
    EXPECT_EQ(logged("no messages can be received"), 1u) << log_text();
    take_log();
    const unique_fd aside{local::process_endpoint.exchange(-1)};
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 4; ++i) { EXPECT_LT(apipc_loop_wait(0, keep), 0); }
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(20 + 40 + 80 + 160));
    EXPECT_EQ(log_text(), "");
    local::process_endpoint = dup(aside.get());
    ASSERT_EQ(client.send(own, message_from(client.identity(), 40)), endpoint_status::ok);
    deliver();
    EXPECT_EQ(delivered.size(), 2u);
    EXPECT_EQ(logged("received again"), 1u);
}
