// The LVDS power-cycle test: waits until the link behind card link 0 reports the expected status, records how many
// times it did not, and reboots. Started at every boot it collects one line per boot. The daemon never starts it.
#pragma once

#include <cstdint>

namespace rvk {

// Starts the test's thread, SCHED_FIFO 88. Result: 0, or -1 (logged).
int32_t LvdsTestTaskCreate(int argument);

// The thread's body; the argument is not used. Never returns.
void LvdsTest(int argument);

// What LvdsTest repeats: waits 2 s, reads the status once. With a good one: records `failures`, waits 30 s, reboots.
// failures  in and out: answers that were not the expected one
void lvds_step(int* failures);

} // namespace rvk
