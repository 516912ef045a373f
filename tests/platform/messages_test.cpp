// What reaches the callback and what is dropped.
#include "base/bytes.h"
#include "platform/endpoint_folder.h"
#include "platform/local/endpoint.h"
#include "platform/platform.h"
#include "support/log_capture.h"

#include <algorithm>
#include <cerrno>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/time.h>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;

constexpr uint32_t own = 0x010A3B00, peer = 0x010A7F01;
std::vector<bytes> delivered;

int keep(int, int, const void* message, int length)
{
    delivered.emplace_back(static_cast<const uint8_t*>(message), static_cast<const uint8_t*>(message) + length);
    return 0;
}

// Result: the message that was sent, which says that it is the sender's.
bytes send(int fd, uint32_t sender, size_t size = 40)
{
    bytes message(std::max<size_t>(size, 4), 0x5A);
    store_le32(message.data(), sender);
    message.resize(size);
    sockaddr_un to;
    EXPECT_TRUE(local::endpoint_address(own, to));
    const auto* generic = reinterpret_cast<const sockaddr*>(&to);
    EXPECT_EQ(sendto(fd, message.data(), message.size(), 0, generic, sizeof to), static_cast<ssize_t>(message.size()));
    return message;
}

TEST(Messages, WhatIsTooLongOrLiesIsDroppedAndLogged)
{
    const endpoint_folder folder;
    unique_fd client, other;
    ASSERT_EQ(apipc_init(own, 0), 0);
    ASSERT_EQ(local::bind_endpoint(peer, client), 0);
    const timeval at_most{0, 50'000}; // a receive ends with an error when nothing has come for so long
    ASSERT_EQ(setsockopt(local::process_endpoint, SOL_SOCKET, SO_RCVTIMEO, &at_most, sizeof at_most), 0);
    take_log();
    send(client.get(), peer, local::datagram_bytes_max + 1);
    send(client.get(), peer + 1); // another's name
    send(client.get(), own);      // the receiver's own
    send(client.get(), peer, 3);  // no first word
    const unique_fd nameless{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    send(nameless.get(), peer);
    std::vector<bytes> good{send(client.get(), peer, local::datagram_bytes_max), send(client.get(), peer, 4)};
    setenv("APIPC_DIR", (folder.path + "/.").c_str(), 1); // another spelling of the same
    ASSERT_EQ(local::bind_endpoint(peer + 2, other), 0);
    good.push_back(send(other.get(), peer + 2));
    EXPECT_LT(apipc_loop_wait(0, keep), 0);
    EXPECT_TRUE(delivered == good);
    EXPECT_EQ(logged("dropped"), 5u) << log_text();
    const bytes too_long(local::datagram_bytes_max + 1);
    EXPECT_EQ(apipc_send(peer, too_long.data(), local::datagram_bytes_max + 1), -EMSGSIZE);
    unique_fd{local::process_endpoint.exchange(-1)};
}

} // namespace
