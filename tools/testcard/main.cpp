// rvk-testcard: makes a test picture, for the demo and for people at the bench.
#include "command/options.h"
#include "files/bmp.h"
#include "testcard/test_card.h"

#include <png.h>

namespace rvk {
namespace {

constexpr char about[] =
    R"(Makes a test picture: colour bars (white, yellow, cyan, green, magenta, red, blue, black) with a large number
on them.)";

constexpr char footer[] =
    R"(Formats: raw, the pixels as card memory takes them (4 bytes: 0x55, red, green, blue; top line first), which is
what the demo and `rvkctl picture put` send; bmp, 32 bits a pixel, as a read-back of that picture writes it;
bmp24, 24 bits, as the picture loader of `rvkdiag` takes it; png.

Exit status: 0 done; 1 the file could not be written, or memory lacked; 2 wrong usage.)";

constexpr uint32_t number_max = 9999;

using bytes = std::vector<uint8_t>;

bytes png_of(const bytes& pixels, picture_size size)
{
    bytes rgb;
    rgb.reserve(pixels.size() / 4 * 3);
    for (size_t i = 0; i < pixels.size(); i += 4) { rgb.insert(rgb.end(), &pixels[i + 1], &pixels[i] + 4); }
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    image.width = size.hor;
    image.height = size.ver;
    image.format = PNG_FORMAT_RGB;
    size_t length = PNG_IMAGE_PNG_SIZE_MAX(image);
    bytes file(length);
    if (png_image_write_to_memory(&image, file.data(), &length, 0, rgb.data(), 0, nullptr) == 0) {
        throw tool::failure{tool::problem::no_memory, std::string("no PNG can be made of it: ") + image.message};
    }
    file.resize(length);
    return file;
}

// The first one is made unless another is named.
const struct file_format {
    const char* name;
    bytes (*file_of)(bytes&& pixels, picture_size size);
} formats[]{
    {"raw", [](bytes&& pixels, picture_size) { return std::move(pixels); }},
    {"bmp", [](bytes&& pixels, picture_size size) { return bmp_of(pixels, size, 32); }},
    {"bmp24", [](bytes&& pixels, picture_size size) { return bmp_of(pixels, size, 24); }},
    {"png", [](bytes&& pixels, picture_size size) { return png_of(pixels, size); }},
};

const file_format* format_named(const std::string& name)
{
    for (const file_format& f : formats) {
        if (name == f.name) { return &f; }
    }
    throw tool::failure{tool::problem::wrong_usage, "--format \"" + name + "\": give raw, bmp, bmp24 or png"};
}

int run(int argc, char** argv)
{
    uint32_t number = 0;
    picture_size size{};
    std::string path;
    const file_format* format = formats;
    CLI::App app{about, "rvk-testcard"};
    app.footer(footer);
    app.set_version_flag("--version", "rvk-testcard " RVK_VERSION);
    tool::add_number(app, "NUMBER", number, "drawn on it, 0 to 9999", 0, number_max)->required()->type_name("");
    tool::add_value(app, "WxH", "its size in pixels and lines",
                    [&size](const std::string& text) { size = tool::size_in("WxH", text, 1); })
        ->required()
        ->type_name("");
    app.add_option("FILE", path, "created or replaced")->required()->type_name("");
    tool::add_value(app, "--format", "raw, bmp, bmp24 or png [raw]", [&format](const std::string& name) {
        format = format_named(name);
    })->type_name("NAME");
    return tool::run_app(app, argc, argv,
                         [&] { tool::save(path, format->file_of(test_card(number, size.hor, size.ver), size)); });
}

} // namespace
} // namespace rvk

int main(int argc, char** argv)
{
    return rvk::tool::run_tool("rvk-testcard", [=] { return rvk::run(argc, argv); });
}
