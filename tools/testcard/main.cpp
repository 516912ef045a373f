// rvk-testcard: makes a test picture, for the demo and for people at the bench.
#include "command/options.h"
#include "testcard/test_card.h"

namespace rvk {
namespace {

constexpr char about[] =
    R"(Makes a test picture: colour bars (white, yellow, cyan, green, magenta, red, blue, black) with a large number
on them.)";

constexpr char footer[] =
    R"(Formats: raw, the pixels as card memory takes them (4 bytes: 0x55, red, green, blue; top line first), which is
what the demo and `rvkctl picture put` send; bmp, 32 bits a pixel, as a read-back of that picture writes it;
bmp24, 24 bits, as the picture loader of `rvkdiag` takes it.

Exit status: 0 done; 1 the file could not be written, or memory lacked; 2 wrong usage.)";

using bytes = std::vector<uint8_t>;

// The first one is made unless another is named.
const struct file_format {
    const char* name;
    bytes (*file_of)(bytes&& pixels, picture_size size);
} formats[]{
    {"raw", [](bytes&& pixels, picture_size) { return std::move(pixels); }},
    {"bmp", [](bytes&& pixels, picture_size size) { return tool::bmp_of(pixels, size, 32); }},
    {"bmp24", [](bytes&& pixels, picture_size size) { return tool::bmp_of(pixels, size, 24); }},
};

const file_format* format_named(const std::string& name)
{
    for (const file_format& f : formats) {
        if (name == f.name) { return &f; }
    }
    tool::fail(tool::problem::wrong_usage, "--format \"%s\": give raw, bmp or bmp24", name.c_str());
}

int run(int argc, char** argv)
{
    uint32_t number = 0;
    picture_size size{};
    std::string path;
    const file_format* format = formats;
    CLI::App app{about, "rvk-testcard"};
    tool::set_up(app, footer);
    tool::add_number(app, "NUMBER", "", number, "drawn on it, 0 to 9999", 0, 9999);
    tool::add_value(app, "WxH", "", "its size in pixels and lines",
                    [&size](const std::string& text) { size = tool::size_in("WxH", text, 1); });
    tool::add_text(app, "FILE", "", path, "created or replaced");
    tool::add_value(app, "--format", "NAME", "raw, bmp or bmp24 [raw]",
                    [&format](const std::string& name) { format = format_named(name); });
    return tool::run_app(app, argc, argv,
                         [&] { tool::save(path, format->file_of(test_card(number, size.hor, size.ver), size)); });
}

} // namespace
} // namespace rvk

int main(int argc, char** argv)
{
    return rvk::tool::run_tool("rvk-testcard", [=] { return rvk::run(argc, argv); });
}
