// How a figure is taken: rounds of ours and of the bare loop in turn, so that what drifts hits both; the median of
// each, and of the rounds' ratios, beside the goal. Prints the rows of the table in docs/performance.md. One thread.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

namespace rvk::bench {

// Everything that belongs to a figure runs on this one processor, as `pin_to_processor` takes it: waking a second one
// that is idle costs ten times an exchange and would hide it.
inline constexpr int processor = 1;

// SCHED_FIFO. The cards answer before anybody else runs, or, late ones, when nobody else does. The bare loops, and who
// calls the send operations, have the daemon's own; the requester comes behind, as an ordinary process would.
inline constexpr int card_priority = 97, file_priority = 95, receive_priority = 90, sender_priority = 88,
                     requester_priority = 50, late_card_priority = 40;

// Pins the calling thread and gives it a real-time priority; the process ends with a message when that is refused.
void take_processor(int priority);

[[noreturn]] void fail(const std::string& why);
template <typename Text>
void require(bool done, const Text& otherwise) // makes no string unless it fails
{
    if (!done) { fail(otherwise); }
}

// The rows of a subject; each is run in a process of its own, so that nothing is left over from another.
void plain_write_row(), instructions_row(), read_row(size_t bytes);                      // link_rows.cpp
void messages_row(), late_row(), picture_row(), services_row(), idle_row(), start_row(); // daemon_rows.cpp
void queue_row(), pool_row();                                                            // memory_rows.cpp
void bus_write_row(), bus_read_row(), load_picture_row();                                // bus_rows.cpp
void count_instructions_of(const std::string& which); // what instructions_row runs under callgrind: "ours" or "bare"

inline int rounds = 15; // of each side

struct row {
    std::string work, against, unit;
    double most;         // the goal; 0: there is none
    bool of_bare = true; // as a ratio; false: in the row's unit
};

// One measurement: result per unit of work, in the row's unit.
using measurement = std::function<double()>;

// Each runs once to warm up, then `rounds` times, in turn, with a pause after each. Prints the row.
void compare(const row& about, const measurement& ours, const measurement& bare);
void print(const row& about, double ours, double bare, double ratio);
inline void print(const row& about, double ours, double bare) { print(about, ours, bare, ours / bare); }

// Nanoseconds per unit that `work` takes for `units` of them.
[[nodiscard]] double time_per_unit(size_t units, const std::function<void()>& work);

[[nodiscard]] double median(std::vector<double> values);

} // namespace rvk::bench
