// A log sink for tests: keeps every line in memory, in the order in which it was logged.
//
// Linked in the place of the daemon's sink. RVK_TEST_LOG in the environment also shows the lines on standard error, to
// see what a failing test did. All functions: any thread.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace rvk {

struct log_entry {
    std::string module; // folder of the library that logged
    std::string function;
    int line = 0;     // in its source file
    std::string text; // as formatted, with its line end where the caller gave one
};

// Hands out what was logged since the last call and starts over; a test's first line, so that others' lines are gone.
std::vector<log_entry> take_log();

// Entries logged since the last take_log() whose text contains `part`. Takes nothing away.
[[nodiscard]] size_t logged(std::string_view part);

// The texts since the last take_log(), one behind the other as a reader of the log would see them. Takes nothing away.
[[nodiscard]] std::string log_text();

} // namespace rvk
