// What the payload of a file job carries, read within its bounds: pictures with their size and a path, updates with
// their type and a path.
#pragma once

#include "ap_msg/mailbox.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace rvk {

// Offsets from the payload's first byte.
namespace picture_job {
inline constexpr size_t hor = 0, ver = 4, path = 8; // 4 4 and text to its zero byte
}
namespace update_job {
inline constexpr size_t type = 0, path = 4; // 4 and text to its zero byte
}

inline constexpr size_t job_path_bytes = 1024; // ours: any path that the mailbox can carry fits

using job_path = std::array<char, job_path_bytes>; // zero-terminated

// A job's data head and payload, as the mailbox carries them.
struct file_request {
    int index;
    uint8_t slot;
    uint16_t model;
    uint32_t addr;
    std::span<const uint8_t> payload; // `len` bytes
};

[[nodiscard]] file_request file_request_of(const mailbox_area& data_head);

struct picture_size {
    uint32_t hor, ver; // pixels, lines
};

inline constexpr size_t pixel_bytes = 4;               // card
inline constexpr uint32_t side_max = 65'535;           // card: 16-bit registers
inline constexpr uint64_t pixels_max = (1u << 29) - 1; // ours: picture bytes fit 31 bits

constexpr size_t picture_bytes(picture_size size) { return size_t{size.hor} * size.ver * pixel_bytes; }

// Reads a picture job's size and path. A payload that is too short, a path that is not terminated in it or does not fit
// `path_max` characters, and a picture that no card takes, are logged and refused. Result: 0 or -1.
[[nodiscard]] int32_t read_picture_job(const file_request& request, size_t path_max, picture_size* size,
                                       job_path* path);

// Copies the text at an offset of a payload. Result: 0; -1, and logged, when it is not terminated within the payload or
// has more than `path_max` characters.
[[nodiscard]] int32_t read_path(std::span<const uint8_t> payload, size_t at, size_t path_max, job_path* path);

} // namespace rvk
