// Pictures into card memory and back: what a put, a get and the check of a put have in common.
#pragma once

#include "base/picture.h"
#include "rvkctl/commands.h"
#include "rvkctl/scratch_folder.h"

#include <cstdint>
#include <string>

namespace rvk::ctl {

// Where a picture is to be read to: the pixels, and the image that the daemon makes beside them.
struct picture_files {
    std::string raw, image;
};

[[nodiscard]] picture_files files_of(const std::string& raw);

[[nodiscard]] inline uint64_t pixel_bytes_of(const picture_options& options)
{
    return picture_bytes({options.hor, options.ver});
}

// Where a picture's pixels begin in its file; 0 of a .bmp that is none.
[[nodiscard]] uint64_t pixels_at(const std::string& path);

// Lets the daemon read card memory from options.where on into both files. Returns when they are complete, or throws a
// failure.
void read_back(session& talk, const picture_options& options, const picture_files& files);

// Reads a picture back that was put from this file, and compares what a read-back delivers. Throws a failure when it
// differs or cannot be had. Result: what was compared, for a person.
std::string verify_picture(session& talk, const picture_options& options, const std::string& path,
                           const scratch_folder& scratch, outcome& run);

} // namespace rvk::ctl
