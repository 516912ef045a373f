// Ten digits as dots, 5 wide and 7 high.
#pragma once

#include <cstdint>

namespace rvk {

inline constexpr uint32_t digit_width = 5, digit_height = 7;

// digit  0 to 9; column and line from the top left
[[nodiscard]] bool has_dot(unsigned digit, uint32_t column, uint32_t line);

} // namespace rvk
