// The head of a 32-bit bottom-up BMP file.
#pragma once

#include "base/bytes.h"

#include <array>
#include <cstdint>

namespace rvk {

inline constexpr size_t bmp_head_bytes = 54; // bmp: file header of 14 and info header of 40

constexpr std::array<uint8_t, bmp_head_bytes> bmp_head(uint32_t hor, uint32_t ver)
{
    const uint32_t pixels = hor * ver * 4;
    std::array<uint8_t, bmp_head_bytes> head{'B', 'M'};
    store_le32(head.data() + 2, pixels + static_cast<uint32_t>(bmp_head_bytes)); // file size
    store_le32(head.data() + 10, bmp_head_bytes);                                // where the pixels start
    store_le32(head.data() + 14, 40);                                            // info header's size
    store_le32(head.data() + 18, hor);
    store_le32(head.data() + 22, ver); // positive: the last line comes first
    store_le16(head.data() + 26, 1);   // planes
    store_le16(head.data() + 28, 32);  // bits per pixel
    store_le32(head.data() + 34, pixels);
    return head;
}

} // namespace rvk
