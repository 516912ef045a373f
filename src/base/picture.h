// Pictures: the cards' pixels, how they lie in card memory, the sizes that are taken, and the head of a BMP file.
#pragma once

#include "base/bytes.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace rvk {

struct picture_size {
    uint32_t hor, ver; // pixels, lines
};

inline constexpr size_t pixel_bytes = 4;               // card: one that is not shown, red, green, blue
inline constexpr uint16_t side_max = 65'535;           // card: 16-bit registers
inline constexpr uint64_t pixels_max = (1u << 29) - 1; // ours: picture bytes fit 31 bits

constexpr size_t line_bytes(picture_size size) { return size.hor * pixel_bytes; }
constexpr size_t picture_bytes(picture_size size) { return line_bytes(size) * size.ver; }

// card: memory is addressed in words of 8 bytes, and moved in bursts of 512 bits, to which each line is padded
inline constexpr size_t word_bytes = 8, burst_bytes = 64, burst_words = burst_bytes / word_bytes;
constexpr size_t bursts_of(size_t bytes) { return (bytes + burst_bytes - 1) / burst_bytes; }
constexpr size_t stride_of(picture_size size) { return bursts_of(line_bytes(size)) * burst_bytes; }

// card: a command to read (0) or load (1) so many bytes of memory from a word address on
constexpr std::array<uint8_t, 7> memory_command(uint32_t addr, size_t bytes, uint8_t load)
{
    std::array<uint8_t, 7> command{};
    store_le32(command.data(), addr);
    store_le16(&command[4], static_cast<uint16_t>(bursts_of(bytes)));
    command[6] = load;
    return command;
}

// Offsets from a BMP file's first byte: a file header of 14 bytes and an info header of 40; the rest is zero.
namespace bmp {
inline constexpr size_t file_bytes = 2, pixels_at = 10, pixels_at_end = 14;                            // 4 4
inline constexpr size_t info_bytes = 14, hor = 18, ver = 22, planes = 26, bits = 28, image_bytes = 34; // 4 4 4 2 2 4
inline constexpr size_t head_bytes = 54;
} // namespace bmp

constexpr size_t bmp_line_bytes(uint32_t hor, unsigned bits) { return (size_t{hor} * bits / 8 + 3) / 4 * 4; }

// The head of a file whose bottom line comes first; bits: 24 or 32 a pixel.
constexpr std::array<uint8_t, bmp::head_bytes> bmp_head(picture_size size, unsigned bits)
{
    const auto pixels = static_cast<uint32_t>(bmp_line_bytes(size.hor, bits) * size.ver);
    std::array<uint8_t, bmp::head_bytes> head{'B', 'M'};
    store_le32(&head[bmp::file_bytes], pixels + static_cast<uint32_t>(bmp::head_bytes));
    store_le32(&head[bmp::pixels_at], bmp::head_bytes);
    store_le32(&head[bmp::info_bytes], 40);
    store_le32(&head[bmp::hor], size.hor);
    store_le32(&head[bmp::ver], size.ver);
    store_le16(&head[bmp::planes], 1);
    store_le16(&head[bmp::bits], static_cast<uint16_t>(bits));
    store_le32(&head[bmp::image_bytes], pixels);
    return head;
}

} // namespace rvk
