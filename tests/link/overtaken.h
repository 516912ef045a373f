// Counts the sends on link 0 that were overtaken by their answers: the linker puts these in the place of sendto and
// recvfrom (--wrap).
#pragma once

#include <atomic>
#include <cstdint>

namespace rvk {

// Sends during which at least one frame was received and dealt with, before the sender had control again.
extern std::atomic<uint64_t> overtaken_sends;

} // namespace rvk
