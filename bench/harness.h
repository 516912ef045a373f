// How a figure is taken: rounds of ours and of the bare loop in turn, so that what drifts hits both, the median of
// each, and their ratio beside the goal. Prints the rows of the table in docs/performance.md. One thread.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace rvk::bench {

// Everything that belongs to a figure runs on this one processor, as `pin_to_processor` takes it: waking a second one
// that is idle costs ten times an exchange and would hide it. The daemon's link threads go there by themselves.
inline constexpr int processor = 1;

// SCHED_FIFO. The cards answer before anybody else runs, the requester last, as an ordinary process would.
inline constexpr int card_priority = 97;
inline constexpr int sender_priority = 88;    // a bare loop, and the caller of the send operations: the daemon's own
inline constexpr int slow_card_priority = 80; // cards that answer when the sender waits
inline constexpr int requester_priority = 50;

// Pins the calling thread and gives it a real-time priority; the process ends with a message when that is refused.
void take_processor(int priority);

[[noreturn]] void fail(const std::string& why);

struct pair_of_medians {
    double ours, bare;
};

// One measurement: result per unit of work, in the row's unit.
using measurement = std::function<double()>;

// Each runs once to warm up, then `rounds` times, in turn, with a pause after each.
[[nodiscard]] pair_of_medians compare(int rounds, const measurement& ours, const measurement& bare);

// Nanoseconds per unit that `work` takes for `units` of them.
[[nodiscard]] double time_per_unit(size_t units, const std::function<void()>& work);

[[nodiscard]] double median(std::vector<double> values);

void print_table_head();

// goal  the ratio that is to be kept, ours over bare
void print_ratio(const std::string& work, const std::string& against, const std::string& unit, pair_of_medians found,
                 double goal);

// goal  the most that ours may be, in the row's unit
void print_bound(const std::string& work, const std::string& against, const std::string& unit, pair_of_medians found,
                 double goal);

} // namespace rvk::bench
