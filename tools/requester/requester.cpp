// See the header. The sockets' names and rules are those of the platform's stand-in.
#include "requester/requester.h"

#include "ap_msg/message.h"
#include "base/clock.h"
#include "platform/local/endpoint.h"

#include <algorithm>
#include <cerrno>
#include <sys/socket.h>
#include <unistd.h>

namespace rvk {
namespace {

static_assert(message_bytes_max == local::datagram_bytes_max);

using std::chrono::milliseconds;
using clock = std::chrono::steady_clock;

constexpr uint32_t low_byte_count = 255; // 1 to 255
constexpr uint64_t retry_interval_ms = 1;

// Waits for a message. False when the time ran out.
bool wait_readable_until(int fd, clock::time_point end)
{
    for (;;) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - clock::now()).count();
        if (wait_readable(fd, left > 0 ? static_cast<uint64_t>(left) : 0)) { return true; }
        if (left <= 0) { return false; } // before that, it was a signal or the clock's last millisecond
    }
}

} // namespace

requester::requester() : incoming(std::make_unique<local::receive_buffer>()) {}

requester::~requester() { close(); }

int requester::open(uint32_t identity)
{
    close();
    const int error = local::bind_endpoint(identity, fd);
    own = identity;
    socket_file = socket_path(identity);
    return error;
}

int requester::open_free(uint8_t board, uint8_t module)
{
    // Each process starts its search elsewhere: an answer that is late for one client should not find the next in its
    // place.
    const uint32_t first = static_cast<uint32_t>(::getpid()) % low_byte_count;
    int error = EADDRINUSE;
    for (uint32_t i = 0; i < low_byte_count && error == EADDRINUSE; ++i) {
        error = open(identity_of(board, module) | ((first + i) % low_byte_count + 1));
    }
    return error;
}

void requester::close()
{
    if (!fd) { return; }
    ::unlink(socket_file.c_str()); // before the socket goes: nobody takes over what is still alive
    fd.reset();
}

int requester::send(uint32_t destination, std::span<const uint8_t> message, milliseconds patience)
{
    const auto end = clock::now() + patience;
    for (;;) {
        const int error = local::send_datagram(fd.get(), destination, message);
        if (error != EAGAIN || clock::now() >= end) { return error; }
        pause_ms(retry_interval_ms); // the own socket's readiness says nothing about the other's queue
    }
}

std::vector<uint8_t> requester::receive(milliseconds timeout)
{
    const auto end = clock::now() + timeout;
    while (wait_readable_until(fd.get(), end)) {
        const ssize_t received = local::receive_datagram(fd.get(), *incoming, MSG_DONTWAIT);
        if (received > 0) { return {incoming->bytes, incoming->bytes + received}; }
        if (received < 0 && errno != EAGAIN && errno != EINTR) { break; }
    }
    return {};
}

std::string socket_path(uint32_t identity)
{
    sockaddr_un address;
    return local::endpoint_address(identity, address) ? address.sun_path : local::endpoint_directory();
}

} // namespace rvk
