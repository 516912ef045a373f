// The file service: what takes too long for the IPC receive thread goes through a one-slot mailbox to a thread of its
// own, one job at a time, in their order: pictures into card memory, card memory into files, updates. A job is put into
// the slot only when the job before it has ended, whatever processors the two threads run on: the semaphore "slot free"
// is waited for before file_mutex is taken and posted after that is released, so no job is overwritten and none runs
// twice. Lock order: file_mutex, demo_mutex, pic_mutex, then those of the exchanges. index, model, slot: the card.
// Unless said otherwise, the file-service thread calls what is below.
#pragma once

#include "ap_msg/message.h"
#include "base/mutex.h"
#include "base/picture.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <span>

namespace rvk {

using mailbox_area = std::array<uint8_t, mailbox_bytes>;

// Guards the slot; the file-service thread holds it for the whole of a job.
extern mutex file_mutex;
extern mailbox_area file_name_data RVK_GUARDED_BY(file_mutex);  // the job's data head and payload
extern mailbox_area file_write_head RVK_GUARDED_BY(file_mutex); // the job's message head

// Held around each synchronous exchange of the dispatch and the demo and around an update's reading of a generation,
// and by the demo for a whole picture: a command waits for it then. A firmware transfer does not take it.
extern fair_mutex demo_mutex;

// One picture into card memory: set-up, start, data and end are never interleaved with another's.
extern fair_mutex pic_mutex;

// Non-zero while a firmware update runs: the dispatch, which reads it without a lock, then drops every command.
extern std::atomic<int> gbUpdateProcessRunning;

// Puts a job into the slot, waiting for the one before it to end. Both areas must fit.
// Result  0, or -1 when no thread serves file jobs. Called by the IPC receive thread.
[[nodiscard]] int32_t mailbox_put(std::span<const uint8_t> data, std::span<const uint8_t> head)
    RVK_EXCLUDES(file_mutex);

// For when the file-service thread could not be started: turns away every job from now on, one that waits for the slot
// included. Result: whether a job is in the slot already; it stays there, and the caller answers it.
bool mailbox_close() RVK_EXCLUDES(file_mutex);

// Starts the thread, SCHED_FIFO 95. Result: 0, or -1 (logged): file jobs are then refused. Main thread, at start.
int32_t WexApFileTaskCreate(int processor);
void ApMsgFileProc(int processor); // the thread's body; never returns
void file_step();                  // what it repeats: waits for one job and runs it

// The jobs, in picture_write.cpp, read_back.cpp, update.cpp. Result: what the answer carries. A read-back has no answer
// and always 0: it writes the named file, and its image to that name with ".bmp" behind it.
int32_t write_file_handle(const received_command& c);
int32_t read_file_handle(const received_command& c);
int32_t update_file_handle(const received_command& c);
void write_file_resp(const received_command& c, int32_t result);
void update_file_resp(const received_command& c, int32_t result);

// Where in a file's bytes the picture's pixels stand, by the last four characters of its name: at the offset that a
// ".bmp" carries, at the start of any other. Result: the picture's bytes; none, and logged, when the file is too small.
[[nodiscard]] std::span<const uint8_t> pixels_of(std::span<const uint8_t> file, const char* path, picture_size size);

// Writes a file's picture into buffer number `buffer`, a black one when it cannot be had from the file. hor and ver: as
// read_picture_job takes them. Result: DDR2Write's; -1 without memory for a black one. Nothing calls the `_test`; the
// last one always writes a black picture, and takes its model before its slot.
int32_t write_file_handler(int index, uint8_t slot, uint16_t model, uint32_t buffer, uint32_t hor, uint32_t ver,
                           const char* path);
int32_t write_file_handle_test(int index, uint8_t slot, uint16_t model, uint32_t buffer, uint32_t hor, uint32_t ver,
                               const char* path);
int32_t write_file_handler_excp(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint32_t hor, uint32_t ver);

// Writes hor x ver pixels into a picture buffer: three acknowledged control writes, and between the second and the
// third the data in plain frames of 1,400 bytes.
// data     at least hor x ver x 4 bytes; null is refused
// Result   0 once data is given, whatever the card answered; -1 without
// Threads  the file service's and the demo's; holds pic_mutex throughout
int32_t DDR2Write(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint16_t hor, uint16_t ver,
                  std::span<const uint8_t> data) RVK_EXCLUDES(pic_mutex);

// Reads a picture's lines from card memory (start: its address in 8-byte words) into `dest`, hor x ver x 4 bytes. A
// step that the card does not answer leaves zeros. The file service's thread.
void DDR2Read(int index, uint16_t model, uint8_t slot, uint32_t start, uint16_t hor, uint16_t ver,
              std::span<uint8_t> dest);

// Reads one step of at most 1,400 bytes, as many as `dest` takes. addr: in 8-byte words. Result: of the data's read.
int32_t DDR2ReadProcess(int index, uint16_t model, uint8_t slot, uint32_t addr, std::span<uint8_t> dest);

} // namespace rvk
