// Little-endian loads and stores: the only place where a buffer's bytes become values, and back. They need no alignment
// and do not depend on the host's byte order.
#pragma once

#include <cstdint>

namespace rvk {

constexpr uint16_t load_le16(const uint8_t* p) { return static_cast<uint16_t>(p[0] | p[1] << 8); }

constexpr uint32_t load_le32(const uint8_t* p)
{
    return static_cast<uint32_t>(load_le16(p)) | static_cast<uint32_t>(load_le16(p + 2)) << 16;
}

constexpr void store_le16(uint8_t* p, uint16_t v)
{
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

constexpr void store_le32(uint8_t* p, uint32_t v)
{
    store_le16(p, static_cast<uint16_t>(v));
    store_le16(p + 2, static_cast<uint16_t>(v >> 16));
}

} // namespace rvk
