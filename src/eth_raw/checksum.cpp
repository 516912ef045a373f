#include "eth_raw/frame.h"

#include <cstring>

namespace rvk {

uint16_t frame_checksum_plain(const uint8_t* bytes, size_t count)
{
    uint16_t sum = checksum_start;
    for (size_t i = 0; i < count; ++i) { sum = static_cast<uint16_t>(sum + bytes[i]); }
    return sum;
}

// Two bytes at a time, as one 16-bit word: the sum of the words has each word's upper byte in it 256 times, so 255 of
// these are taken out again. All of it may wrap, since only the sum modulo 65,536 is wanted, and in which order the
// host has a word's bytes does not matter. In this form the compiler makes five vector instructions of 16 bytes, where
// it may vectorise at all: the flags stand beside this file's library.
uint16_t frame_checksum(const uint8_t* bytes, size_t count)
{
    uint16_t words = checksum_start;
    uint16_t upper = 0;
    for (size_t i = 0; i < count / 2; ++i) {
        uint16_t word;
        memcpy(&word, bytes + 2 * i, sizeof word);
        words = static_cast<uint16_t>(words + word);
        upper = static_cast<uint16_t>(upper + (word >> 8));
    }
    const uint16_t last = count % 2 == 0 ? 0 : bytes[count - 1];
    return static_cast<uint16_t>(words - 255 * upper + last);
}

} // namespace rvk
