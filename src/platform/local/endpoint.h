// Endpoints of the messaging service as datagram sockets: the one place that knows where they live and what may pass.
// An endpoint with identity 0xIIIIIIII is bound at $APIPC_DIR/IIIIIIII.sock (eight lower-case hex digits). One datagram
// is one message, byte for byte. Used by the stand-in's calls and by rvkctl. Results are 0 or errno values: each caller
// says in its own words what was wrong. Any thread; owns nothing but the process's own endpoint.
#pragma once

#include "base/fd.h"

#include <atomic>
#include <cstdint>
#include <span>
#include <sys/types.h>
#include <sys/un.h>

namespace rvk::local {

inline constexpr size_t datagram_bytes_max = 65575; // message: a head of 38, a payload of 65,535, two of padding

// The longest message, and the one byte more by which a longer one is told. Aligned as a message may be read.
struct alignas(8) receive_buffer {
    uint8_t bytes[datagram_bytes_max + 1];
};

// The folder of all endpoints (APIPC_DIR, or /run/apipc where that is unset or empty), and where an identity's socket
// lives in it. False: the folder's name is too long for a socket address.
const char* endpoint_directory();
[[nodiscard]] bool endpoint_address(uint32_t identity, sockaddr_un& out);

// Binds an endpoint, mode 0660, and takes over a socket file to which nobody is bound. Of several processes that try at
// the same moment one wins. Waits at most a second for those that bind just now. The process's umask is 0 meanwhile.
// Result  EADDRINUSE: alive, or another user's stale file; ENAMETOOLONG, ENOENT (no folder), EACCES, or another
[[nodiscard]] int bind_endpoint(uint32_t identity, unique_fd& out);

// Whether a process is bound to the identity, whether or not it reads.
[[nodiscard]] bool endpoint_alive(uint32_t identity);

// Sends one message without waiting.
// Result  EAGAIN: the peer's queue is full; ENOENT: no socket file; ECONNREFUSED: nobody is bound to it; EACCES,
//         EMSGSIZE (above datagram_bytes_max), ENAMETOOLONG, or another
[[nodiscard]] int send_datagram(int fd, uint32_t identity, std::span<const uint8_t> message);

// Receives one message into the buffer; waits for it unless flags has MSG_DONTWAIT.
// Result  its length, 4 to datagram_bytes_max; 0 when what came was dropped and logged: too long, or its first word is
//         not the identity that its sender is bound to in this folder; -1 with errno set
[[nodiscard]] ssize_t receive_datagram(int fd, receive_buffer& buffer, int flags);

// The endpoint that apipc_init bound for this process, -1 before that; it lives as long as the process.
extern std::atomic<int> process_endpoint;

} // namespace rvk::local
