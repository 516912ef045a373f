#include "files/bmp.h"

#include "base/picture.h"

#include <algorithm>
#include <cassert>

namespace rvk {

std::vector<uint8_t> bmp_of(std::span<const uint8_t> pixels, uint32_t hor, uint32_t ver, unsigned bits)
{
    assert((bits == 24 || bits == 32) && pixels.size() >= size_t{hor} * ver * 4);
    const size_t line = bmp_line_bytes(hor, bits);
    std::vector<uint8_t> file(bmp::head_bytes + line * ver);
    std::ranges::copy(bmp_head({hor, ver}, bits), file.begin());
    const uint8_t* from = pixels.data();
    for (uint32_t y = 0; y < ver; ++y) {
        uint8_t* to = file.data() + bmp::head_bytes + (ver - 1 - y) * line;
        for (uint32_t x = 0; x < hor; ++x, from += 4, to += bits / 8) {
            to[0] = from[3];
            to[1] = from[2];
            to[2] = from[1];
            if (bits == 32) { to[3] = from[0]; }
        }
    }
    return file;
}

} // namespace rvk
