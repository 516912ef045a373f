// Requesters that ask the daemon without end, each on a thread and an identity of its own, and book what they get:
// every command must be answered exactly once, with the data that the card holds or with -1.
#pragma once

#include "base/pause.h"

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace rvk {

struct load_figures {
    size_t asked = 0, good = 0, refused = 0; // refused: answered with -1
    std::vector<uint32_t> us;                // each answer's time in microseconds
    std::string wrong;                       // the first answer that was none; empty: all were
};

// The value below which `part` of them lie; 0 of none.
[[nodiscard]] uint32_t quantile(std::vector<uint32_t> values, double part);

// "asked 10, data 8, -1 2; median 80 us, 99 % 120 us"
[[nodiscard]] std::string in_words(const load_figures& figures);

struct load_options {
    size_t requesters = 1;
    uint32_t pause_us = 0;   // between an answer and the next command
    bool reads_only = false; // else every other command is a waited write
    int priority = 50;       // SCHED_FIFO, below the daemon and the cards; 0: an ordinary thread
};

class load {
public:
    explicit load(const load_options& options);
    ~load();
    load(const load&) = delete;
    load& operator=(const load&) = delete;

    // Ends it. Result: all requesters' figures together.
    load_figures stop();

    static constexpr uint8_t slot = 2;
    static constexpr uint32_t addr = 0x20000100;
    static constexpr uint16_t bytes = 64; // the card must hold content(1, 64) there

private:
    void ask(const load_options& options, load_figures* figures);

    std::atomic<bool> stopping{false};
    std::vector<load_figures> all;
    std::vector<std::thread> threads;
};

} // namespace rvk
