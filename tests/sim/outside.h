// What the delivery rules meet outside, replaced: the socket, sleeping and waiting, the messaging service, the pool's
// luck. One thread and no time of its own: a test moves everything, also while a sender is held inside its call.
//
// A synchronous sender that waits runs `on_wait` again and again until it is woken; a sender on its way through a send
// runs `before_send` (node filed, frame not packed) and `after_send` (frame out, sender not back).
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <span>
#include <string>
#include <sys/types.h>
#include <vector>

namespace rvk {

using frame_bytes_t = std::vector<uint8_t>;

struct outside {
    std::function<ssize_t(std::span<const uint8_t> frame)> on_frame; // the system call: its result; none: `frames`
    std::deque<frame_bytes_t> answers;                               // what recvfrom hands out, then nothing
    std::function<void(uint32_t to, std::span<const uint8_t> message)> on_message; // none: `messages`
    std::function<void()> on_wait, before_send, after_send;
    std::function<void(uint64_t us)> on_pause;
    int allocations_left = -1; // the pool gives this many blocks, then none; negative: as many as are asked for

    struct message {
        uint32_t to;
        std::vector<uint8_t> bytes;
    };
    std::vector<frame_bytes_t> frames;
    std::vector<message> messages;
    uint64_t paused_us = 0;
    int errors_printed = 0; // calls of perror, which print nothing here; nor do reports on the console
};
extern outside world;

// Starts over: nothing of the above, empty queues, link 0 open, sequence numbers from `first_seq`, no ticks waiting.
void reset_outside(uint16_t first_seq = 0);

// A reply as a card packs it.
struct test_answer {
    uint8_t code;
    uint8_t status;
    uint32_t addr;
    uint16_t seq;
    std::span<const uint8_t> data;
    uint16_t model = 0;
};
[[nodiscard]] frame_bytes_t pack(const test_answer& answer);

void receive(const frame_bytes_t& frame); // one frame arrives and is dealt with
void ticks(int n);                        // time passes, with one check pass behind each tick

[[nodiscard]] std::string pool_in_use(); // blocks handed out, class by class
[[nodiscard]] int32_t filed();           // requests pending on link 0, all queues

} // namespace rvk
