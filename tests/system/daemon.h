// The daemon under test and a requester to talk to it: how it is started, what its log must look like, what an answer
// is.
//
// Every daemon here gets a recorder in place of sysctl, so that a start is short; its lines are in sysctl_record.
#pragma once

#include "ap_msg/message.h"
#include "requester/requester.h"
#include "system/child.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace rvk {

#if defined(__SANITIZE_THREAD__)
inline constexpr bool thread_sanitized = true;
#else
inline constexpr bool thread_sanitized = false;
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true; // figures of memory and time are the sanitizer's
#else
inline constexpr bool sanitized = false;
#endif

inline constexpr milliseconds last_words{sanitized ? 10'000 : 3'000}; // a dying process is gone within 2 s, and room

// Programs run under what RVK_EMULATOR says ("qemu-arm -L /usr/…").
[[nodiscard]] bool is_emulated();

// Those that end the daemon with its last words. Without SIGSEGV under the emulator, which dies itself of one in 40
// that another process sends while threads are being started; a fault of one's own is safe there.
[[nodiscard]] std::vector<int> deadly_signals();

// What starts a program of ours, beside the test itself, or a script that starts it under the emulator.
[[nodiscard]] std::string program(const std::string& name);

// ThreadSanitizer sleeps a second at each end, and has an opinion on what a handler does when no thread is there for
// it.
inline const std::string sanitizer_manners =
    "TSAN_OPTIONS=halt_on_error=1 second_deadlock_stack=1 atexit_sleep_ms=0 report_signal_unsafe=0";

[[nodiscard]] child_setup daemon_setup(); // the recorder first on PATH
inline const std::string sysctl_record = "/run/rvk-bench/sysctl";
inline const std::string log_files[2] = {"/var/log/rvk_log0.txt", "/var/log/rvk_log1.txt"};

struct daemon_process : child {
    explicit daemon_process(const std::vector<std::string>& arguments = {}, const child_setup& setup = daemon_setup(),
                            std::vector<std::string> in_front = {}); // a command that runs it
    int end_by(int number, milliseconds wait = patience)             // sends the signal; result as end()
    {
        signal(number);
        return end(wait);
    }
};

// One line of the log, taken apart; `whole` is false when it has not the form of one.
struct log_line {
    bool whole = false;
    std::string time, module, function, text;
    int pid = 0, source_line = 0;
};
[[nodiscard]] log_line parse_log_line(const std::string& line);

// What is wrong with the last words in a log: "task_die!!!", the count, one line per frame. Empty: nothing.
[[nodiscard]] std::string fault_in_last_words(const std::string& log);

// A command to the daemon; `len` is the payload's length unless given.
struct command_fields {
    uint8_t code = command::read, slot = 1;
    uint16_t model = 0;
    uint32_t addr = 0;
    std::vector<uint8_t> payload{};
    int len = -1;
    uint8_t id = 254;
    int16_t type = 0;
    uint16_t seq = 0;
};

// A requester that talks to the daemon of board 1.
class conversation : public requester {
public:
    explicit conversation(uint32_t own_identity = 0); // 0: a free one of the tools'
    [[nodiscard]] std::vector<uint8_t> pack(const command_fields& fields) const;
    void tell(std::span<const uint8_t> message); // waits for room in the daemon's queue
    void tell(const command_fields& fields) { tell(pack(fields)); }
    [[nodiscard]] std::vector<uint8_t> ask(const command_fields& fields, milliseconds wait = patience);

    // The daemon answers a greeting. Commands are handled in order: whatever was sent before has been handled then.
    [[nodiscard]] bool is_greeted(milliseconds wait = patience);
};

inline constexpr uint32_t daemon_identity = identity_of(1, module_self);
inline constexpr uint32_t identity_of_companion = identity_of(1, module_companion);

// The fields of an answer that tests compare.
[[nodiscard]] int32_t result_of(std::span<const uint8_t> answer); // 1 when it is no message

} // namespace rvk
