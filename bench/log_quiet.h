// The benchmarks' ear at the log: where an operation has parts, its log lines say when one begins and ends.
#pragma once

namespace rvk::bench {

// Called with the format of every line, on the thread that logs it; none by default. Set before other threads start, or
// while they are idle.
extern void (*log_listener)(const char* format);

} // namespace rvk::bench
