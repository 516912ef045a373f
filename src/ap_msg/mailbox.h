// What the command dispatch and the file-service thread share: the one-slot mailbox between them, and the lock that
// keeps their card exchanges apart.
//
// A job is put into the slot only when the job before it has ended, whatever processors the two threads run on: the
// semaphore "slot free" is waited for before file_mutex is taken and posted after that is released, so no job is
// overwritten and none runs twice.
#pragma once

#include "base/mutex.h"

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <span>

namespace rvk {

inline constexpr size_t mailbox_bytes = 1024; // ours: data head and payload of a file job fit

using mailbox_area = std::array<uint8_t, mailbox_bytes>;

// Guards the slot; the file-service thread holds it for the whole of a job.
extern mutex file_mutex;
extern mailbox_area file_name_data RVK_GUARDED_BY(file_mutex);  // the job's data head and payload
extern mailbox_area file_write_head RVK_GUARDED_BY(file_mutex); // the job's message head

// Keeps the synchronous card exchanges of the dispatch, the update and the demo apart: held around each such exchange,
// and by the demo for a whole picture: a command from another process waits for it.
extern fair_mutex demo_mutex;

// Non-zero while a firmware update runs: every command is then dropped. Written by the file-service thread, read
// without a lock by the dispatch.
extern std::atomic<int> gbUpdateProcessRunning;

// Puts a job into the slot, waiting for the one before it to end. Both areas must fit.
// Result  0, or -1 when no thread serves file jobs. Called by the IPC receive thread.
[[nodiscard]] int32_t mailbox_put(std::span<const uint8_t> data, std::span<const uint8_t> head)
    RVK_EXCLUDES(file_mutex);

// Waits for a job. The file-service thread then takes file_mutex, runs the job, releases it and calls mailbox_free.
void mailbox_wait();
void mailbox_free() RVK_EXCLUDES(file_mutex);

// For when the file-service thread could not be started: turns away every job from now on, one that waits for the slot
// included. Result: whether a job is in the slot already; it stays there, and the caller answers it.
bool mailbox_close() RVK_EXCLUDES(file_mutex);

} // namespace rvk
