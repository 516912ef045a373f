// The semaphore's identifier and its opening, for the block link alone.
#pragma once

#include <cstdint>

namespace rvk {

extern int sem_id; // System V identifier, -1 without one

// Creates the semaphore with the value 1, or attaches to the one there is. Result: 0, -1 when a new one could not be
// set.
[[nodiscard]] int32_t open_semaphore();

} // namespace rvk
