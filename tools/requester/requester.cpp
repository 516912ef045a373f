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

bool directory_exists() { return ::access(local::endpoint_directory(), F_OK) == 0; }

endpoint_status status_of(int error)
{
    switch (error) {
    case 0: return endpoint_status::ok;
    case ENOENT: return directory_exists() ? endpoint_status::no_socket : endpoint_status::no_directory;
    case ENOTDIR: return endpoint_status::no_directory;
    case ENAMETOOLONG: return endpoint_status::name_too_long;
    case ECONNREFUSED: return endpoint_status::nobody_listening;
    case EACCES:
    case EPERM: return endpoint_status::no_permission;
    case EAGAIN: return endpoint_status::queue_full;
    case EMSGSIZE: return endpoint_status::message_too_long;
    case EADDRINUSE: return endpoint_status::identity_taken;
    default: return endpoint_status::other;
    }
}

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

endpoint_status requester::failed(int error)
{
    last_error = error;
    return status_of(error);
}

endpoint_status requester::open(uint32_t identity)
{
    close();
    if (const int error = local::bind_endpoint(identity, fd); error != 0) {
        // A folder that somebody keeps locked is no full queue; error() says so.
        return error == EAGAIN ? (last_error = error, endpoint_status::other) : failed(error);
    }
    own = identity;
    socket_file = socket_path(identity);
    return endpoint_status::ok;
}

endpoint_status requester::open_free(uint8_t board, uint8_t module)
{
    // Each process starts its search elsewhere: an answer that is late for one client should not find the next in its
    // place.
    const uint32_t first = static_cast<uint32_t>(::getpid()) % low_byte_count;
    endpoint_status status = endpoint_status::identity_taken;
    for (uint32_t i = 0; i < low_byte_count && status == endpoint_status::identity_taken; ++i) {
        status = open(identity_of(board, module) | ((first + i) % low_byte_count + 1));
    }
    return status;
}

void requester::close()
{
    if (!fd) { return; }
    ::unlink(socket_file.c_str()); // before the socket goes: nobody takes over what is still alive
    fd.reset();
}

endpoint_status requester::send(uint32_t destination, std::span<const uint8_t> message, milliseconds patience)
{
    const auto end = clock::now() + patience;
    for (;;) {
        const int error = local::send_datagram(fd.get(), destination, message);
        if (error == 0) { return endpoint_status::ok; }
        if (error != EAGAIN || clock::now() >= end) { return failed(error); }
        // The own socket's readiness says nothing about the other's queue.
        pause_ms(retry_interval_ms);
    }
}

std::vector<uint8_t> requester::receive(milliseconds timeout)
{
    const auto end = clock::now() + timeout;
    while (wait_readable_until(fd.get(), end)) {
        const ssize_t received = local::receive_datagram(fd.get(), *incoming, MSG_DONTWAIT);
        if (received > 0) { return {incoming->bytes, incoming->bytes + received}; }
        if (received < 0 && errno != EAGAIN && errno != EINTR) {
            last_error = errno;
            break;
        }
    }
    return {};
}

std::string socket_path(uint32_t identity)
{
    sockaddr_un address;
    return local::endpoint_address(identity, address) ? address.sun_path : local::endpoint_directory();
}

std::string socket_directory() { return local::endpoint_directory(); }

} // namespace rvk
