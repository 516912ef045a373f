// The temporary copy of a firmware image, and the 256-byte head that the card finds in front of it. The copy is made
// block by block, so an image is never whole in memory; it stays in place until the next transfer replaces it. Called
// by the file-service thread only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

namespace rvk {

inline constexpr char update_temp_path[] = "/home/updatebin.tmp"; // ours

inline constexpr size_t image_head_bytes = 256;                     // card
inline constexpr size_t image_size_at = 0, image_checksum_at = 130; // card: 4 and 2 bytes, the rest zero

enum class image_kind { binary, encrypted, unknown };

// Logs that a file could not be opened, and by errno why.
void log_open_failure(const char* path);

// By the first marker found anywhere in the name, binary ones first; upper and lower case as listed.
[[nodiscard]] image_kind kind_of(const char* path);

// Makes the temporary file afresh: head and image. Failures are logged.
// size    of the image in bytes, as measured before
// Result  0; -1 when a file cannot be opened or written whole, or the image is no longer of that size
[[nodiscard]] int32_t build_image(const char* source, off_t size);

} // namespace rvk
