// A table of 1,000 small buffers, handed out round robin. Nothing in the daemon uses it; other programs may.
// The handle is the entry's own 64-byte block. Any thread; the table has a lock of its own.
#pragma once

#include <cstdint>

namespace rvk {

inline constexpr int min_buffers = 1000;         // ours
inline constexpr unsigned min_buffer_bytes = 64; // card: the shortest payload

// Allocates the blocks. Result: 0, or -1 at the first that cannot be had; those before it stay.
[[nodiscard]] int32_t RawMsgInitMinBuffer();

// Gives all blocks back; whoever still holds one holds nothing.
void RawMsgUninitMinBuffer();

// Result: the next entry's block; null, and logged, when that entry has none or is in use. It looks no further.
[[nodiscard]] uint8_t* RawMsgMinBuffGet();

// Marks the block's entry free; a pointer that is no entry's is refused and logged.
void RawMsgMinBuffFree(uint8_t* block);

} // namespace rvk
