// The daemon's figures as text: one table of them, written as JSON and as Prometheus text. Reads the counters, the
// queues' lengths and the pool; takes no lock, allocates nothing.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rvk {

inline constexpr size_t status_bytes_max = 32 * 1024; // ours: some three times what either text has

// A text that is being written; what does not fit is cut off, and `whole` is false then.
struct status_text {
    char bytes[status_bytes_max];
    size_t used;
    bool whole;
};

// What the figures are of, and when they were taken.
struct status_moment {
    int board;           // its number
    int process;         // the daemon's id
    uint64_t time_s;     // now, seconds since 1970
    uint64_t boot_ms;    // now, by a clock that nobody sets: milliseconds since the machine's start
    uint64_t started_ms; // the daemon's start by the same clock
};

// Fill a text from its beginning.
void write_json(status_text* out, const status_moment& now);
void write_prometheus(status_text* out, const status_moment& now);

} // namespace rvk
