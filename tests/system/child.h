// A child process under test: its standard output in a pipe, its end as a number, gone with its owner.
//
// Nothing is read until a test asks for it, so that a test may also be the reader that stalls or goes away. One thread.
#pragma once

#include "base/fd.h"
#include "base/pause.h"

#include <chrono>
#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace rvk {

using std::chrono::milliseconds;

inline constexpr milliseconds patience{30'000}; // for what must come: two processors, sanitizers, other work
inline constexpr int still_running = -1;

struct child_setup {
    std::vector<std::string> environment{}; // "NAME=value", on top of ours
    void (*before_exec)() = nullptr;        // in the child; only what may be called after a fork of a threaded process
};

class child {
public:
    explicit child(const std::vector<std::string>& command, const child_setup& setup = {});
    ~child(); // kills it if it is still there
    child(const child&) = delete;
    child& operator=(const child&) = delete;

    [[nodiscard]] pid_t pid() const { return process; }
    void signal(int number) const;

    // Reads its output until that contains the text. False: it did not in the time given, or the output ended.
    [[nodiscard]] bool shows(std::string_view text, milliseconds wait = patience);

    // Waits for its end, reading its output meanwhile unless it shall stall.
    // Result: its exit status, 1000 and the signal that killed it, or still_running
    [[nodiscard]] int end(milliseconds wait = patience, bool read_output = true);

    [[nodiscard]] const std::string& output() const { return collected; } // what was read so far
    void shrink_pipe() const;                                             // to one page, so that it fills soon
    void stop_listening() { pipe_end.reset(); }

private:
    bool read_some(milliseconds wait);

    pid_t process = -1;
    int status = still_running;
    unique_fd pipe_end;
    std::string collected;
};

// A field of /proc/PID/NAME with lines "Key:\tvalue"; empty when it is not there (any more).
[[nodiscard]] std::string proc_field(const std::string& folder, const std::string& file, const std::string& key);

struct thread_facts {
    std::string tid, name;
    int policy = -1, priority = -1; // real-time priority
};
[[nodiscard]] std::vector<thread_facts> threads_of(pid_t process);

// A mask of /proc/PID/status: SigBlk, SigIgn, SigCgt. folder: "PID" or "PID/task/TID".
struct signal_mask {
    uint64_t bits = 0;
    [[nodiscard]] bool has(int number) const { return (bits >> (number - 1) & 1) != 0; }
};
[[nodiscard]] signal_mask mask_of(const std::string& folder, const std::string& mask);

[[nodiscard]] std::string file_text(const std::string& path); // empty when it is not there

// Waits, looking every few milliseconds, until the condition holds. False: it did not in the time given.
template <typename Condition>
[[nodiscard]] bool comes_true(Condition holds, milliseconds wait = patience)
{
    const auto until = std::chrono::steady_clock::now() + wait;
    while (!holds()) {
        if (std::chrono::steady_clock::now() > until) { return false; }
        pause_ms(2);
    }
    return true;
}

} // namespace rvk
