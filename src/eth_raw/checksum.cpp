#include "eth_raw/frame.h"

namespace rvk {

// A frame's bytes are summed in lanes that never overflow within a stretch and are folded at its end: in this form the
// compiler vectorises the inner loop on x86-64 and ARM, which it does not do for a 16-bit running sum. The flag it
// needs for that at -O2 stands beside this file's library.
uint16_t frame_checksum(const uint8_t* bytes, size_t count)
{
    uint32_t sum = checksum_start;
    for (size_t i = 0; i < count; ++i) { sum += bytes[i]; }
    return static_cast<uint16_t>(sum);
}

} // namespace rvk
