// A whole file at once, and what went wrong in words. For tools and tests; may be called by any thread.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace rvk {

// Creates or replaces the file. Result: empty, or one line that says what was wrong.
[[nodiscard]] std::string write_file(const std::string& path, std::span<const uint8_t> bytes);

} // namespace rvk
