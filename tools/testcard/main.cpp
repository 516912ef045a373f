// rvk-testcard: makes a test picture, for the demo and for people at the bench.
#include "files/bmp.h"
#include "files/write_file.h"
#include "testcard/command_line.h"
#include "testcard/png_file.h"
#include "testcard/test_card.h"

#include <cstdio>

namespace rvk {
namespace {

std::string write_card(const wanted_card& card)
{
    const auto pixels = test_card(card.number, card.hor, card.ver);
    switch (card.format) {
    case file_format::raw: return write_file(card.path, pixels);
    case file_format::bmp: return write_file(card.path, bmp_of(pixels, card.hor, card.ver, 32));
    case file_format::bmp24: return write_file(card.path, bmp_of(pixels, card.hor, card.ver, 24));
    case file_format::png: return write_png(card.path, pixels, card.hor, card.ver);
    }
    return {};
}

} // namespace
} // namespace rvk

int main(int argc, char** argv)
{
    const rvk::parsed_command command = rvk::parse_command(argc, argv);
    if (!command.card) {
        std::fputs(command.text.c_str(), command.status == 0 ? stdout : stderr);
        return command.status;
    }
    const std::string wrong = rvk::write_card(*command.card);
    if (!wrong.empty()) { std::fprintf(stderr, "rvk-testcard: %s\n", wrong.c_str()); }
    return wrong.empty() ? 0 : 1;
}
