// A process's own endpoint on the messaging service, as a client of the daemon: `rvkctl` and benchmarks send commands
// through it and receive what comes back. Owns its socket and the socket's file, which goes with it. One thread at a
// time; several requesters may live in one process, each with an identity of its own. Results are 0 or errno values.
#pragma once

#include "base/fd.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace rvk {

namespace local {
struct receive_buffer;
}

inline constexpr uint8_t module_tools = 0x7F; // ours: the module number under which tools and tests ask

class requester {
public:
    using milliseconds = std::chrono::milliseconds;

    requester();
    ~requester();
    requester(const requester&) = delete;
    requester& operator=(const requester&) = delete;

    // Binds exactly this identity. Result: EADDRINUSE, ENOENT (no folder), EACCES, ENAMETOOLONG, or another.
    [[nodiscard]] int open(uint32_t identity);

    // Binds a free identity of a module: its low byte is one of 1 to 255, since 0 is that of the module's own process.
    // EADDRINUSE: there is none.
    [[nodiscard]] int open_free(uint8_t board, uint8_t module = module_tools);

    void close();
    [[nodiscard]] uint32_t identity() const { return own; }

    // Sends one message as it is, its first word included; waits for a full queue up to the time given. Result: EAGAIN
    // (still full), ENOENT (no socket's file, or no folder), ECONNREFUSED (nobody is bound to it), EACCES, or another.
    [[nodiscard]] int send(uint32_t destination, std::span<const uint8_t> message,
                           milliseconds patience = milliseconds{0});

    // The next message, or an empty one when none came in time or the socket failed. What is too long or lies about its
    // sender is dropped and logged, and does not lengthen the wait.
    [[nodiscard]] std::vector<uint8_t> receive(milliseconds timeout);

private:
    unique_fd fd;
    uint32_t own = 0;
    std::string socket_file; // to be removed at the end; where it is may change with the environment
    std::unique_ptr<local::receive_buffer> incoming;
};

// The file of an identity's socket, for messages to people.
[[nodiscard]] std::string socket_path(uint32_t identity);

} // namespace rvk
