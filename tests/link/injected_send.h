// Decides what becomes of the sends on link 0: the linker puts these in the place of sendto and recvfrom (--wrap).
#pragma once

#include <atomic>
#include <cstdint>
#include <vector>

namespace rvk {

enum class send_fate {
    works,
    cut_short,        // nothing goes out, one byte less is claimed
    would_block,      // EAGAIN
    no_buffers,       // ENOBUFS
    link_down,        // ENETDOWN
    sent_but_denied,  // goes out and is answered, and only then reported as failed
    returns_late,     // goes out, and its sender is held for 400 ms
    returns_answered, // goes out, and its sender is held until something was received and dealt with
};

// What the next sends on link 0 come to; those after them work. Forgets the times of those before.
void plan_sends(std::vector<send_fate> fates);

// When each send was tried since then, in microseconds of the monotonic clock, planned or not.
[[nodiscard]] std::vector<uint64_t> send_times_us();

// Frames that the receive thread has dealt with: it came back for the next one.
extern std::atomic<uint64_t> receives;

// Sends during which at least one frame was received and dealt with, before the sender had control again.
extern std::atomic<uint64_t> overtaken_sends;

} // namespace rvk
