#include "testcard/command_line.h"

#include "base/picture.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <map>

namespace rvk {
namespace {

constexpr const char* description =
    "Makes a test picture: colour bars (white, yellow, cyan, green, magenta, red, blue, black) with a large number\n"
    "on them.";

constexpr const char* formats =
    "Formats: raw, the pixels as card memory takes them (4 bytes: 0x55, red, green, blue; top line first), which is\n"
    "what the demo and `rvkctl picture put` send; bmp, 32 bits a pixel, as a read-back of that picture writes it;\n"
    "bmp24, 24 bits, as the picture loader of `rvkdiag` takes it; png.\n"
    "\n"
    "Exit status: 0 done; 1 the file could not be written; 2 wrong usage.";

constexpr uint32_t number_max = 9999;

const std::map<std::string, file_format> format_names{
    {"raw", file_format::raw}, {"bmp", file_format::bmp}, {"bmp24", file_format::bmp24}, {"png", file_format::png}};

// "3840x2160". Result: false when it is none, or a picture that the daemon does not take.
bool parse_size(const std::string& text, wanted_card& card)
{
    const char* end = text.data() + text.size();
    const auto [x, wrong_hor] = std::from_chars(text.data(), end, card.hor);
    if (wrong_hor != std::errc{} || x == end || *x != 'x') { return false; }
    const auto [rest, wrong_ver] = std::from_chars(x + 1, end, card.ver);
    const auto is_side = [](uint32_t n) { return n >= 1 && n <= side_max; };
    return wrong_ver == std::errc{} && rest == end && is_side(card.hor) && is_side(card.ver) &&
           uint64_t{card.hor} * card.ver <= pixels_max;
}

void add_arguments(CLI::App& app, wanted_card& card)
{
    app.add_option("NUMBER", card.number, "drawn on it, 0 to 9999")
        ->required()
        ->check(CLI::Range(0u, number_max).description(""))
        ->type_name("");
    const auto take_size = [&card](const std::string& text) {
        if (!parse_size(text, card)) {
            throw CLI::ValidationError("WxH", "'" + text +
                                                  "' is no size like 3840x2160, with sides of 1 to 65535 and at most " +
                                                  std::to_string(pixels_max) + " pixels");
        }
    };
    app.add_option_function<std::string>("WxH", take_size, "its size in pixels and lines")->required()->type_name("");
    app.add_option("FILE", card.path, "created or replaced")->required()->type_name("");
    const auto take_format = [&card](const std::string& text) {
        const auto found = format_names.find(text);
        if (found == format_names.end()) {
            throw CLI::ValidationError("--format", "'" + text + "' is not raw, bmp, bmp24 or png");
        }
        card.format = found->second;
    };
    app.add_option_function<std::string>("--format", take_format, "raw, bmp, bmp24 or png [raw]")->type_name("NAME");
}

} // namespace

parsed_command parse_command(int argc, const char* const* argv)
{
    wanted_card card;
    CLI::App app{description, "rvk-testcard"};
    app.footer(formats);
    add_arguments(app, card);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return {{}, 0, app.help()};
    } catch (const CLI::ParseError& error) {
        return {{}, 2, std::string("rvk-testcard: ") + error.what() + " (--help shows the usage)\n"};
    }
    return {card, 0, {}};
}

} // namespace rvk
