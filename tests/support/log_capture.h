// A log sink for tests: keeps what was logged, as a reader of the log would see it. Linked in the place of the
// daemon's. All functions: any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace rvk {

// What was logged since the last call, and starts over; a test's first line, so that others' lines are gone.
std::string take_log();

// How often `part` was logged since then; the texts, one behind the other.
[[nodiscard]] size_t logged(std::string_view part);
[[nodiscard]] std::string log_text();

// Texts that were printed on standard error past the log, since the start; they are thrown away.
[[nodiscard]] size_t errors_shown();

} // namespace rvk
