// What the daemon has seen and done since its start, as numbers: kept where things happen, read by whoever reports
// them.
//
// The one place for them. No lock: each figure is an atomic of its own, so figures of one moment may be one event
// apart. Two are decided by: `endpoint_…` and `last_check_us` tell whether the watchdog is fed. Links are counted by
// their index, 0 to 2.
#pragma once

#include "base/card_links.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cstddef>
#include <cstdint>

namespace rvk {

// One figure, 0 at start. Any thread.
class counter {
public:
    void add(uint64_t n = 1) { value.fetch_add(n, std::memory_order_relaxed); }
    // Whoever gets what was set sees what was set before it, too.
    void set(uint64_t n) { value.store(n, std::memory_order_release); }
    uint64_t get() const { return value.load(std::memory_order_acquire); }
    uint64_t take() { return value.exchange(0, std::memory_order_relaxed); } // and start from 0 again

    // Keeps the larger one; for one writing thread.
    void raise_to(uint64_t n)
    {
        if (n > get()) { set(n); }
    }

private:
    std::atomic<uint64_t> value{0};
    static_assert(std::atomic<uint64_t>::is_always_lock_free);
};

// Figures of one kind, one per cause; the names of the causes, in the same order, are what reports call them.
template <typename Cause>
struct counters_by {
    std::array<counter, static_cast<size_t>(Cause::count)> all;
    counter& operator[](Cause cause) { return all[static_cast<size_t>(cause)]; }
};

// Why a received frame was dropped.
enum class drop : uint8_t { foreign, length, checksum, code, no_request, unusable, count };
inline constexpr std::array drop_names{"not_ours",      "length",          "checksum",
                                       "not_an_answer", "no_such_request", "unusable"};

// Why a frame was not sent, or not at once.
enum class send_failure : uint8_t { not_open, would_block, link_down, no_buffers, no_device, cut_short, other, count };
inline constexpr std::array send_failure_names{"not_open",  "would_block", "link_down", "no_buffers",
                                               "no_device", "cut_short",   "other"};

enum class command_kind : uint8_t { read, write, write_ack, file_write, file_read, update, greeting, other, count };
inline constexpr std::array command_names{"read",      "write",  "write_ack", "file_write",
                                          "file_read", "update", "greeting",  "other"};

// Why a command was not carried out.
enum class refusal : uint8_t {
    wrong_sender,
    wrong_type,
    daemon,
    broadcast,
    too_long,
    cut,
    no_thread,
    no_memory,
    count
};
inline constexpr std::array refusal_names{"wrong_sender", "wrong_type", "daemon",    "broadcast",
                                          "too_long",     "cut",        "no_thread", "no_memory"};

enum class job : uint8_t { picture_write, read_back, update, count };
inline constexpr std::array job_names{"picture_write", "read_back", "update"};

// Pictures, those of the demo too, read-backs and firmware each run one at a time.
enum class transfer : uint8_t { picture, read_back, firmware, count };
inline constexpr std::array transfer_names{"picture", "read_back", "firmware"};

static_assert(drop_names.size() == static_cast<size_t>(drop::count));
static_assert(send_failure_names.size() == static_cast<size_t>(send_failure::count));
static_assert(command_names.size() == static_cast<size_t>(command_kind::count));
static_assert(refusal_names.size() == static_cast<size_t>(refusal::count));
static_assert(job_names.size() == static_cast<size_t>(job::count));
static_assert(transfer_names.size() == static_cast<size_t>(transfer::count));

// How long answers took: entry i counts those of at most 16 µs << i that the entry before it does not, the last one
// those above 512 ms.
inline constexpr size_t answer_time_bounds = 16;
constexpr uint64_t answer_time_bound_us(size_t i) { return uint64_t{16} << i; }

constexpr size_t answer_time_entry(uint32_t us)
{
    const uint32_t whole = us - (us != 0 ? 1 : 0);
    return std::min(static_cast<size_t>(std::bit_width(whole / 16)), answer_time_bounds);
}
static_assert(answer_time_entry(0) == 0 && answer_time_entry(16) == 0 && answer_time_entry(17) == 1 &&
              answer_time_entry(32) == 1);
static_assert(answer_time_entry(524'288) == 15 && answer_time_entry(524'289) == answer_time_bounds);

struct link_counters {
    counter frames_sent, frames_received; // those that are sent again and dropped ones included
    counter bytes_sent, bytes_received;   // from the destination address to the checksum
    counters_by<drop> dropped;
    counters_by<send_failure> send_failed;
    counter kernel_dropped; // frames for which the socket had no room
    counter resends, given_up, wrong_acks;
    counter answers; // that met a request: the sum of the entries below
    std::array<counter, answer_time_bounds + 1> answer_time;
    counter answer_time_us;              // their sum
    std::atomic<uint32_t> last_check_us; // when the check thread last began a pass, by the clock of elapsed.h; 0: never
    counter check_gap_us;                // longest time between two of its passes since the status thread took it
    counter check_gap_shown_us;          // what that thread took, or a time that still runs
    counter check_gap_most_us;           // the longest of those since the start

    void count_answer(uint32_t us)
    {
        answers.add();
        answer_time[answer_time_entry(us)].add();
        answer_time_us.add(us);
    }
};

struct daemon_counters {
    counters_by<command_kind> commands; // refused and dropped ones included
    counters_by<refusal> refused;
    counter dropped_in_update;                           // commands that came while a firmware update ran
    counters_by<job> jobs_done, jobs_failed;             // as their requesters are told
    counters_by<transfer> transfer_total, transfer_done; // bytes of the running one; 0 while none runs
    counter messages_dropped;                            // to requesters that are gone or do not read
    counter endpoint_registered, endpoint_up;            // 1 once it was registered; 1 while requesters can reach it
    counter steps, steps_unanswered;                     // of the file job that runs, or ran last
    counters_by<job> last_requester, last_number, last_steps, last_unanswered; // of the last one that ended
};

// Set by a messaging service that can tell whether an endpoint that it registered is still reached.
inline std::atomic<bool (*)()> endpoint_is_reached{nullptr};

inline link_counters link_count[MAX_ETH];
inline daemon_counters daemon_count;

// A transfer from its first byte to its last, for whoever wants to see how far it is.
class counted_transfer {
public:
    counted_transfer(transfer running, uint64_t total_bytes) : kind(running)
    {
        daemon_count.transfer_done[kind].set(0);
        daemon_count.transfer_total[kind].set(total_bytes);
    }
    ~counted_transfer()
    {
        daemon_count.transfer_total[kind].set(0);
        daemon_count.transfer_done[kind].set(0);
    }
    counted_transfer(const counted_transfer&) = delete;
    counted_transfer& operator=(const counted_transfer&) = delete;

    void reached(uint64_t bytes) { daemon_count.transfer_done[kind].set(bytes); }

private:
    transfer kind;
};

// What a file job asks of the card and needs an answer to: a picture's control writes, a read-back's steps, an update's
// writes. The demo's, on a thread of its own, do not count.
inline thread_local bool runs_a_job = false; // on the file thread
inline void count_step(bool answered)
{
    if (!runs_a_job) { return; }
    daemon_count.steps.add();
    if (!answered) { daemon_count.steps_unanswered.add(); }
}

inline void count_job(job kind, bool done) { (done ? daemon_count.jobs_done : daemon_count.jobs_failed)[kind].add(); }

} // namespace rvk
