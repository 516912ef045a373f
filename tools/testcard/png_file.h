// Pictures in a card's layout as PNG files.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace rvk {

// Creates or replaces the file. pixels: hor x ver x 4 bytes. Result: empty, or one line that says what was wrong.
[[nodiscard]] std::string write_png(const std::string& path, std::span<const uint8_t> pixels, uint32_t hor,
                                    uint32_t ver);

} // namespace rvk
