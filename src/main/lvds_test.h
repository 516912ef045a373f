// The LVDS power-cycle test: waits until the LVDS link behind card link 0 reports the expected status, records how many
// answers said otherwise, and reboots. Started at every boot it collects one line per boot in /root/lvds_check.txt. The
// daemon never starts it; the bench tool does. Link 0 must be open with both of its threads.
#pragma once

#include <cstdint>

namespace rvk {

// Starts the test's thread, SCHED_FIFO 88; it has no stop. Result: 0, or -1 (logged).
int32_t LvdsTestTaskCreate(int argument);

// The thread's body; the argument is not used. Never returns.
void LvdsTest(int argument);

// What LvdsTest repeats: waits 2 s, reads the status once. With a good one: records `failures`, waits 30 s, reboots.
// failures  in and out: answers that were not the expected one
void lvds_step(int* failures);

} // namespace rvk
