// What the daemon has seen and done since its start: counted where things happen, read by the status and its watchdog.
// No lock: each figure is an atomic of its own, so figures of one moment may be one event apart.
#pragma once

#include "base/board.h"

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
    // A thread that gets what was set also sees what the setting thread wrote before it.
    void set(uint64_t n) { value.store(n, std::memory_order_release); }
    uint64_t get() const { return value.load(std::memory_order_acquire); }
    uint64_t take() { return value.exchange(0, std::memory_order_relaxed); } // starts from 0 again

    // Keeps the larger value; for one writing thread.
    void raise_to(uint64_t n)
    {
        if (n > get()) { set(n); }
    }

private:
    std::atomic<uint64_t> value{0};
    static_assert(std::atomic<uint64_t>::is_always_lock_free);
};

// Figures of one kind, one per cause.
template <typename Cause>
struct counters_by {
    std::array<counter, static_cast<size_t>(Cause::count)> all;
    counter& operator[](Cause cause) { return all[static_cast<size_t>(cause)]; }
};

// What reports call the causes, in their order.
template <typename Cause, typename... Name>
consteval auto names_of(Name... names)
{
    static_assert(sizeof...(names) == static_cast<size_t>(Cause::count));
    return std::array<const char*, sizeof...(names)>{names...};
}

// Why a received frame was dropped.
enum class drop : uint8_t { foreign, length, checksum, code, no_request, unusable, count };
inline constexpr auto drop_names =
    names_of<drop>("not_ours", "length", "checksum", "not_an_answer", "no_such_request", "unusable");

// Why a frame was not sent, or not at once.
enum class send_failure { not_open, would_block, link_down, no_buffers, no_device, cut_short, other, count };
inline constexpr auto send_failure_names =
    names_of<send_failure>("not_open", "would_block", "link_down", "no_buffers", "no_device", "cut_short", "other");

enum class command_kind { read, write, write_ack, file_write, file_read, update, greeting, other, count };
inline constexpr auto command_names =
    names_of<command_kind>("read", "write", "write_ack", "file_write", "file_read", "update", "greeting", "other");

// Why a command was not carried out. The first two are counted before a message is taken for a command.
enum class refusal { wrong_sender, wrong_type, daemon, broadcast, too_long, cut, no_thread, no_memory, count };
inline constexpr auto refusal_names =
    names_of<refusal>("wrong_sender", "wrong_type", "daemon", "broadcast", "too_long", "cut", "no_thread", "no_memory");

enum class job { picture_write, read_back, update, count };
inline constexpr auto job_names = names_of<job>("picture_write", "read_back", "update");

// Transfers of each of these kinds (pictures: those of the demo too) run one at a time.
enum class transfer { picture, read_back, firmware, count };
inline constexpr auto transfer_names = names_of<transfer>("picture", "read_back", "firmware");

// How long answers took: entry i counts those of at most 16 µs << i that entry i - 1 does not, the last the others.
inline constexpr size_t answer_time_bounds = 16;
constexpr uint64_t answer_time_bound_us(size_t i) { return uint64_t{16} << i; }

constexpr size_t answer_time_entry(uint32_t us)
{
    const uint32_t whole = us - (us != 0 ? 1 : 0);
    return std::min(static_cast<size_t>(std::bit_width(whole / 16)), answer_time_bounds);
}
static_assert(answer_time_entry(0) == 0 && answer_time_entry(16) == 0 && answer_time_entry(17) == 1 &&
              answer_time_entry(524'288) == 15 && answer_time_entry(524'289) == answer_time_bounds);

struct link_counters {
    counter frames_sent, frames_received; // with resends, and with those that are dropped
    counter bytes_sent, bytes_received;   // from the destination address to the checksum
    counters_by<drop> dropped;
    counters_by<send_failure> send_failed;
    counter kernel_dropped; // frames that the socket had no memory for
    counter resends, given_up, wrong_acks;
    std::array<counter, answer_time_bounds + 1> answer_time; // answers that found a request
    counter answer_time_us;                                  // their sum
    std::atomic<uint32_t> last_check_us; // monotonic_us() when the check thread last began a pass; 0: never
    counter check_gap_us;                // longest time between two passes since the status thread last took it
    counter check_gap_shown_us;          // what that thread took, or the time since the last pass when that is longer
    counter check_gap_most_us;           // the longest since the start

    void count_answer(uint32_t us)
    {
        answer_time[answer_time_entry(us)].add();
        answer_time_us.add(us);
    }
};

struct daemon_counters {
    counters_by<command_kind> commands; // refused and dropped ones included, but not wrong_sender and wrong_type
    counters_by<refusal> refused;
    counter dropped_in_update;                           // commands that came while a firmware update ran
    counters_by<job> jobs_done, jobs_failed;             // by the result, also a read-back's, which nobody is told
    counters_by<transfer> transfer_total, transfer_done; // bytes of the running one; 0 while none runs
    counter messages_dropped;                 // to requesters that are gone, do not read, or cannot be reached
    counter endpoint_registered, endpoint_up; // 1 once it was registered; 1 while requesters can reach it
    counter steps, steps_unanswered;          // of the file job that runs, or ran last
    counters_by<job> last_requester, last_number, last_steps, last_unanswered; // of the last one that ended
};

// Whether the endpoint is still reached; set by a messaging service that can tell.
inline std::atomic<bool (*)()> endpoint_is_reached{nullptr};
inline link_counters link_count[MAX_ETH];
inline daemon_counters daemon_count;

// A transfer that runs as long as this lives, shown in the status.
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

// Counts what a file job needs a card's answer to: a picture's control writes, a read-back's steps, an update's writes.
inline thread_local bool runs_a_job = false; // true on the file thread, not on the demo's
inline void count_step(bool answered)
{
    if (!runs_a_job) { return; }
    daemon_count.steps.add();
    if (!answered) { daemon_count.steps_unanswered.add(); }
}

inline void count_job(job kind, bool done) { (done ? daemon_count.jobs_done : daemon_count.jobs_failed)[kind].add(); }

} // namespace rvk
