// A conversation with one board's daemon: an endpoint of our own, commands with sequence numbers, and the wait for what
// belongs to them. Knows which answer belongs to which command; what an answer means for a command is the command's.
#pragma once

#include "base/fd.h"
#include "platform/local/endpoint.h"
#include "rvkctl/outcome.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace rvk::ctl {

inline constexpr uint8_t module_tools = 0x7F; // ours: the module number under which tools and tests ask

// Every command's options.
struct settings {
    uint8_t board = 1;
    uint8_t module = module_tools;      // ours
    std::optional<uint64_t> timeout_ms; // for each answer; long work is else waited for as long as the daemon lives
    bool json = false;

    [[nodiscard]] std::chrono::milliseconds timeout() const
    {
        return std::chrono::milliseconds{timeout_ms.value_or(5000)};
    }
};

// A card, and where in it.
struct card_options {
    uint8_t slot = 0;
    uint16_t model = 0;
    uint32_t addr = 0;
    bool operator==(const card_options&) const = default;
};

struct request : card_options {
    uint8_t code = 0;
    uint16_t len = 0;                   // data bytes to write, or to read
    std::span<const uint8_t> payload{}; // empty for a read
};

// What the daemon sent, taken apart.
struct answer : card_options {
    int32_t result = 0;
    uint32_t length = 0; // payload bytes of a reply; not used of reports and greetings
    uint8_t code = 0;
    uint16_t seq = 0;
    std::vector<uint8_t> payload{}; // everything behind the head, padding included
};

// Notes whom a command is for, and what it is; known before anything is opened.
void note_command(const settings& used, uint8_t code, const char* meaning, outcome& run);

class session {
public:
    // Opens the endpoint, and notes its identity. Throws a failure, as everything below.
    session(const settings& options, outcome& run);
    ~session();

    // Asks the daemon whether it handles commands. Result: its greeting's text.
    std::string greet();

    // The same, as long as a patient ask() waits: what was sent before is in the daemon's hands then. Asks again and
    // again, since a greeting that comes during an update is dropped.
    void greet_patiently();

    // Sends a command and waits for the answer to it; for long work patiently, as long as the daemon lives, or as long
    // as a timeout that was given.
    answer ask(const request& command, bool patiently = false);

    // Calls `done` with a time to wait in, until it returns true, as long as a patient ask() waits.
    void wait_while_alive(const std::function<bool(std::chrono::milliseconds)>& done);

    // Sends a command that has no answer of its own. Result: its number.
    uint16_t tell(const request& command);

    // The address at which a write in [first, first + bytes) was given up, as the daemon reports within this time.
    std::optional<uint32_t> reported_failure(uint32_t first, uint64_t bytes, std::chrono::milliseconds wait);

    // Whether a write is answered when it is done, or only reported when it fails.
    [[nodiscard]] bool write_is_answered(const request& command) const;

    [[nodiscard]] uint32_t identity() const { return own; }

    std::function<std::string()> doing; // says what a long wait shows on a terminal beside the time; may be none

private:
    using clock = std::chrono::steady_clock;

    // The next answer that is wanted; reports of failed writes that come meanwhile are kept. False: the time ran out.
    bool wait_for(const std::function<bool(const answer&)>& wanted, clock::time_point end, answer& out);
    [[noreturn]] void no_answer() const;
    [[nodiscard]] bool daemon_is_the_same() const; // alive, and not another one started since

    settings used;
    uint32_t daemon;
    uint64_t daemon_socket; // its file's inode number
    uint32_t own = 0;       // identity
    unique_fd endpoint;
    std::string socket_file; // of the endpoint: goes with it
    local::receive_buffer incoming;
    uint16_t last_seq;
    std::vector<uint32_t> failed_writes; // addresses, as reported
};

} // namespace rvk::ctl
