#include "link/overtaken.h"

#include "eth_raw/link.h"

#include <sys/socket.h>

extern "C" {
ssize_t __real_sendto(int fd, const void* data, size_t count, int flags, const sockaddr* to, socklen_t to_bytes);
ssize_t __wrap_sendto(int fd, const void* data, size_t count, int flags, const sockaddr* to, socklen_t to_bytes);
ssize_t __real_recvfrom(int fd, void* data, size_t count, int flags, sockaddr* from, socklen_t* from_bytes);
ssize_t __wrap_recvfrom(int fd, void* data, size_t count, int flags, sockaddr* from, socklen_t* from_bytes);
}

namespace rvk {

std::atomic<uint64_t> overtaken_sends{0};

namespace {

std::atomic<uint64_t> receives{0}; // frames that the receive thread has dealt with: it came back for the next one

} // namespace
} // namespace rvk

ssize_t __wrap_sendto(int fd, const void* data, size_t count, int flags, const sockaddr* to, socklen_t to_bytes)
{
    const uint64_t before = rvk::receives;
    const ssize_t sent = __real_sendto(fd, data, count, flags, to, to_bytes);
    if (fd == rvk::g_eth_init[0].sock_fd && rvk::receives != before) { ++rvk::overtaken_sends; }
    return sent;
}

ssize_t __wrap_recvfrom(int fd, void* data, size_t count, int flags, sockaddr* from, socklen_t* from_bytes)
{
    if (fd == rvk::g_eth_init[0].sock_fd) { ++rvk::receives; }
    return __real_recvfrom(fd, data, count, flags, from, from_bytes);
}
