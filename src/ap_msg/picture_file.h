// Picture files as the file service takes them: the whole file in memory, and where its pixels start. The file is read
// at once, so that whatever happens to it meanwhile no half of a picture is sent. Called by the file-service thread.
#pragma once

#include "ap_msg/file_request.h"
#include "base/fd.h"

#include <cstdint>
#include <memory>
#include <span>

namespace rvk {

// Reads the file into memory. Every failure is logged: not there, cannot be opened, no memory, short read.
// Result: null on failure.
[[nodiscard]] std::unique_ptr<page_buffer> read_picture_file(const char* path, picture_size size);

// Where in a file's bytes the picture's pixels stand, by the last four characters of its name: behind the offset that a
// ".bmp" carries, at the start of any other. Result: the picture's bytes; none, and logged, when the file is too small.
[[nodiscard]] std::span<const uint8_t> pixels_of(std::span<const uint8_t> file, const char* path, picture_size size);

// Whether a name ends in one of the formats above; others are written as they stand, and said so.
[[nodiscard]] bool has_known_format(const char* path);

} // namespace rvk
