// A daemon of the test's own, on a thread: it keeps what it is asked and answers as the test says. It holds the
// daemon's identity and a small card memory, and knows which writes are not answered.
#pragma once

#include "requester/requester.h"

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <thread>
#include <vector>

namespace rvk {

// How it behaves. Everything but the defaults is a fault, or a card that says no.
struct manners {
    int greetings = 1000;                      // answered before it falls silent
    bool answers = true;                       // commands other than the greeting
    int32_t result = 0;                        // of its answers
    int good_answers = 0;                      // that many come first with result 0
    size_t data_missing = 0;                   // bytes by which a read's data falls short
    uint32_t claims_more = 0;                  // bytes that a read's answer claims and does not carry
    bool strays_first = false;                 // answers that belong to other commands, before each one's own
    int reports = 0;                           // failures reported for unwaited writes
    std::chrono::milliseconds report_delay{0}; // after the greeting that follows the write; 0: before that greeting
    uint32_t report_offset = 0;                // added to a reported address
    std::optional<uint32_t> spoilt{};          // the byte at this address is read as another one,
    int spoilt_after = 0;                      // from this read on
    int interrupts_at = -1;                    // the client is interrupted at its n-th command
};

struct seen_command {
    uint32_t sender;
    uint8_t code, slot, id;
    uint16_t model, seq;
    uint32_t addr;
    uint16_t len;
    std::vector<uint8_t> payload; // as long as the message says, padding cut
};

class fake_daemon {
public:
    explicit fake_daemon(const manners& how = {}, uint8_t board = 1);
    ~fake_daemon();
    fake_daemon(const fake_daemon&) = delete;
    fake_daemon& operator=(const fake_daemon&) = delete;

    // Stops and hands out what was asked.
    std::vector<seen_command> finish();

    std::map<uint32_t, uint8_t> memory; // of the one card there is; the thread's own until finish()

private:
    using message_bytes = std::vector<uint8_t>;

    void serve();
    void handle(const message_bytes& request, const seen_command& asked);
    void greet(uint32_t to);
    void report(const seen_command& write);
    void send_strays(const message_bytes& request, uint32_t to);
    void answer_read(const message_bytes& request, const seen_command& asked);
    void answer(const message_bytes& request, uint32_t to, int32_t result, std::span<const uint8_t> data);
    int32_t next_result();

    manners how;
    uint32_t own;
    requester endpoint, stranger; // the stranger has another identity
    std::vector<seen_command> seen;
    std::vector<seen_command> to_report;
    std::atomic<bool> stop{false};
    std::thread thread;
};

} // namespace rvk
