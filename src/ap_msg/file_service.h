// The file-service thread: runs the jobs that are too long for the IPC receive thread, one at a time, in the order in
// which they were handed over.
#pragma once

#include <cstdint>

namespace rvk {

// Starts the thread, SCHED_FIFO 95. Result: 0, or -1 (logged): file jobs are then refused. Main thread, at start.
int32_t WexApFileTaskCreate(int processor);

// The thread's body; never returns.
void ApMsgFileProc(int processor);

// What ApMsgFileProc repeats: waits for one job and runs it.
void file_step();

} // namespace rvk
