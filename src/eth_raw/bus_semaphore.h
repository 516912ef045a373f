// The System V semaphore around whole block operations, one for all processes of the controller. Both of its changes
// are undone by the system when a process dies inside an operation. Owns the identifier; the block link alone calls
// it, its opening from the thread that opens the links.
#pragma once

#include <cstdint>

namespace rvk {

extern int sem_id; // System V identifier, -1 without one; of the last opening, also after the semaphore is removed

// Creates the semaphore with the value 1, or attaches to the one there is. Result: 0, also when none could be had
// (which is logged); -1 when a new one could not be given its value.
[[nodiscard]] int32_t open_semaphore();

int32_t set_semvalue(); // 1: free. Result: 0 or -1
void del_semvalue();    // removes it, for all processes

// Take and give back; the first waits without bound. Result: 0 or -1.
[[nodiscard]] int32_t semaphore_p();
[[nodiscard]] int32_t semaphore_v();

} // namespace rvk
