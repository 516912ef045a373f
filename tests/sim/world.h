// One world in simulated time: the socket, the cards behind it, the clock, sleeping and waiting, the messaging service,
// the shell and the pool's luck, for whoever runs the daemon's code on one thread. Tests and fuzz targets share it.
//
// The program is linked so that these calls end here (see world.cmake). Nothing moves by itself: a sender that waits
// for its answer receives what is on the wire, and with nothing there 30 ms pass; a sender that sleeps lets that time
// pass. A sender can be held where the kernel might preempt it, on both sides of its send, and others run meanwhile.
#pragma once

#include "cardsim/cards.h"

#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace rvk {

using bytes_t = std::vector<uint8_t>;

struct sent_message {
    uint32_t to;
    bytes_t bytes;
};

inline constexpr uint64_t tick_time_us = 30'000;

// While it exists, it is the only one. Its beginning finds link 0 open, empty queues and every block in the pool.
struct world {
    world();
    ~world();
    world(const world&) = delete;
    world& operator=(const world&) = delete;

    // What happens; each has a default.
    std::function<long(std::span<const uint8_t> frame)> on_frame; // result of the send, or the negative error; to_cards
    std::function<void()> on_wait;                                // a sender waits, and has not been woken yet; step
    std::function<void()> before_send, after_send;                // a sender is held: about to send; out, but not back
    std::function<void(uint64_t us)> on_pause;                    // a sender is about to sleep
    std::function<void(const sent_message&)> on_message;
    std::function<int(const char* line)> on_shell; // 0
    bool deaf = false;                             // every queue is full
    int blocks_left = -1;                          // that the pool gives; negative: as many as are asked for

    // The far end of the link.
    card_farm farm;
    std::deque<bytes_t> wire; // on the way to the controller

    // What came of it.
    std::vector<bytes_t> frames;        // that were sent, resent ones included
    std::vector<sent_message> messages; // to requesters
    uint64_t now_us = 0;
    uint64_t errors_shown = 0; // texts on standard error past the log

    long to_cards(std::span<const uint8_t> frame);
    void arrive(std::span<const uint8_t> frame); // one frame comes and is dealt with, before all others
    void tick(int handed_out = 1);               // so many ticks pass, and then the link is checked
    void step();
    void drain();                     // until nothing is on the way and every block is back
    [[nodiscard]] bool woken() const; // the sender that waits was woken, and has not run yet
};

extern world* here;

[[nodiscard]] int blocks_in_use(); // of the pool

// What tests write to an address, and let be read from it.
[[nodiscard]] bytes_t data_at(uint32_t addr, size_t n);

} // namespace rvk
