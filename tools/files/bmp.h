// Pictures in a card's layout, top line first, as BMP files that any viewer shows. A BMP's pixel is blue, green, red
// and, with 32 bits, the byte that is not shown; its bottom line comes first. With 32 bits the file is what the daemon
// makes of a picture that it reads back, with other code for the pixels: the two can be compared.
#pragma once

#include "base/picture.h"

#include <span>
#include <vector>

namespace rvk {

// bits    32, or 24: lines are padded to 4 bytes then, and the byte that is not shown is lost
// Result  the file's bytes
[[nodiscard]] std::vector<uint8_t> bmp_of(std::span<const uint8_t> pixels, picture_size size, unsigned bits);

} // namespace rvk
