#include "files/bmp.h"

#include "base/bytes.h"

#include <cassert>

namespace rvk {
namespace {

// Offsets of the fields that are not zero, in the file header of 14 bytes and the info header of 40.
constexpr size_t file_size_at = 2, pixels_at = 10, info_size_at = 14, hor_at = 18, ver_at = 22, planes_at = 26,
                 bits_at = 28, image_size_at = 34, head_bytes = 54;
constexpr uint32_t info_bytes = 40;

size_t line_bytes(uint32_t hor, unsigned bits) { return (size_t{hor} * bits / 8 + 3) / 4 * 4; }

void put_head(std::vector<uint8_t>& file, uint32_t hor, uint32_t ver, unsigned bits)
{
    file[0] = 'B';
    file[1] = 'M';
    store_le32(&file[file_size_at], static_cast<uint32_t>(file.size()));
    store_le32(&file[pixels_at], head_bytes);
    store_le32(&file[info_size_at], info_bytes);
    store_le32(&file[hor_at], hor);
    store_le32(&file[ver_at], ver);
    store_le16(&file[planes_at], 1);
    store_le16(&file[bits_at], static_cast<uint16_t>(bits));
    store_le32(&file[image_size_at], static_cast<uint32_t>(file.size() - head_bytes));
}

// One line. No thread shares either buffer, and ThreadSanitizer would take seconds to look at each byte of a few
// pictures.
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

std::vector<uint8_t> bmp_of(std::span<const uint8_t> pixels, uint32_t hor, uint32_t ver, unsigned bits)
{
    assert((bits == 24 || bits == 32) && pixels.size() >= size_t{hor} * ver * 4);
    const size_t line = line_bytes(hor, bits);
    std::vector<uint8_t> file(head_bytes + line * ver);
    put_head(file, hor, ver, bits);
    for (uint32_t y = 0; y < ver; ++y) {
        turn_line(pixels.data() + size_t{y} * hor * 4, file.data() + head_bytes + (ver - 1 - y) * line, hor, bits);
    }
    return file;
}

} // namespace rvk
