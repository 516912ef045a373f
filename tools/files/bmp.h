// Pictures in a card's layout as BMP files that any viewer shows.
//
// A card's pixel is 4 bytes: one that is not shown, red, green, blue; the top line comes first. A BMP has blue, green,
// red and, with 32 bits, the unused byte behind them; its bottom line comes first. The 32-bit file of a picture is byte
// for byte what the daemon makes of it when it reads it back; the pixels are turned by other code, so that the two can
// be compared.
#pragma once

#include <cstdint>
#include <span>
#include <vector>

namespace rvk {

// pixels  hor x ver x 4 bytes in a card's layout
// bits    32, or 24: lines are padded to 4 bytes then, and the unused byte is lost
// Result  the file's bytes
[[nodiscard]] std::vector<uint8_t> bmp_of(std::span<const uint8_t> pixels, uint32_t hor, uint32_t ver, unsigned bits);

} // namespace rvk
