#include "files/bmp.h"

#include <algorithm>
#include <cassert>

namespace rvk {
namespace {

// One line. No thread shares either buffer, and ThreadSanitizer would take seconds to look at each byte of a picture.
__attribute__((no_sanitize("thread"))) void turn_line(const uint8_t* from, uint8_t* to, uint32_t hor, unsigned bits)
{
    for (uint32_t x = 0; x < hor; ++x, from += 4, to += bits / 8) {
        to[0] = from[3];
        to[1] = from[2];
        to[2] = from[1];
        if (bits == 32) { to[3] = from[0]; }
    }
}

} // namespace

std::vector<uint8_t> bmp_of(std::span<const uint8_t> pixels, picture_size size, unsigned bits)
{
    assert((bits == 24 || bits == 32) && pixels.size() >= picture_bytes(size));
    const size_t line = bmp_line_bytes(size.hor, bits);
    std::vector<uint8_t> file(bmp::head_bytes + line * size.ver);
    std::ranges::copy(bmp_head(size, bits), file.begin());
    for (uint32_t y = 0; y < size.ver; ++y) {
        const uint8_t* from = pixels.data() + y * line_bytes(size); // a line may have no pixels
        turn_line(from, file.data() + bmp::head_bytes + (size.ver - 1 - y) * line, size.hor, bits);
    }
    return file;
}

} // namespace rvk
