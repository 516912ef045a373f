// A process's own endpoint on the messaging service, as a client of the daemon: `rvkctl`, tests and benchmarks send
// commands through it and receive what comes back. Owns its socket and the socket's file, which goes with it. One
// thread at a time; several requesters may live in one process, each with an identity of its own.
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

// Why an endpoint could not be opened, or a message not be handed over.
enum class endpoint_status {
    ok,
    no_directory,     // the folder of the endpoints is not there
    name_too_long,    // the folder's name does not fit a socket address
    no_socket,        // the destination has no socket file
    nobody_listening, // it has one, but nobody is bound to it
    no_permission,    // the folder or the destination's socket may not be used
    queue_full,       // the destination did not take the message in the time given
    message_too_long, // above message_bytes_max
    identity_taken,   // the own identity, or every one of the range, is in use
    other             // requester::error() says what
};

class requester {
public:
    using milliseconds = std::chrono::milliseconds;

    requester();
    ~requester();
    requester(const requester&) = delete;
    requester& operator=(const requester&) = delete;

    // Binds exactly this identity.
    [[nodiscard]] endpoint_status open(uint32_t identity);

    // Binds a free identity of a module: its low byte is one of 1 to 255, since 0 is that of the module's own process.
    [[nodiscard]] endpoint_status open_free(uint8_t board, uint8_t module = module_tools);

    void close();
    [[nodiscard]] uint32_t identity() const { return own; }
    [[nodiscard]] int descriptor() const { return fd.get(); } // for a test that waits for many, or stops reading

    // Sends one message as it is, its first word included; waits for a full queue up to the time given.
    [[nodiscard]] endpoint_status send(uint32_t destination, std::span<const uint8_t> message,
                                       milliseconds patience = milliseconds{0});

    // The next message, or an empty one when none came in time or the socket failed. What is too long or lies about its
    // sender is dropped and logged, and does not lengthen the wait.
    [[nodiscard]] std::vector<uint8_t> receive(milliseconds timeout);

    [[nodiscard]] int error() const { return last_error; } // errno of the last status that was not ok

private:
    endpoint_status failed(int error);

    unique_fd fd;
    uint32_t own = 0;
    int last_error = 0;
    std::string socket_file; // to be removed at the end; where it is may change with the environment
    std::unique_ptr<local::receive_buffer> incoming;
};

// The file of an identity's socket, for messages to people.
[[nodiscard]] std::string socket_path(uint32_t identity);

// The folder of all endpoints, for messages to people.
[[nodiscard]] std::string socket_directory();

} // namespace rvk
