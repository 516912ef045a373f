#include "testcard/png_file.h"

#include <png.h>
#include <vector>

namespace rvk {

std::string write_png(const std::string& path, std::span<const uint8_t> pixels, uint32_t hor, uint32_t ver)
{
    std::vector<uint8_t> rgb;
    rgb.reserve(pixels.size() / 4 * 3);
    for (size_t i = 0; i + 4 <= pixels.size(); i += 4) { rgb.insert(rgb.end(), &pixels[i + 1], &pixels[i] + 4); }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = hor;
    image.height = ver;
    image.format = PNG_FORMAT_RGB;
    if (png_image_write_to_file(&image, path.c_str(), 0, rgb.data(), 0, nullptr) != 0) { return {}; }
    return path + ": cannot be written: " + image.message;
}

} // namespace rvk
