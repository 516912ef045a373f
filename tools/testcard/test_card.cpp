#include "testcard/test_card.h"

#include <algorithm>
#include <string>

namespace rvk {
namespace {

constexpr uint8_t not_shown = 0x55;

// Ten digits as dots, 5 wide and 7 high.
constexpr uint32_t digit_width = 5, digit_height = 7;
constexpr const char* shapes[10][digit_height]{
    {" ### ", "#   #", "#  ##", "# # #", "##  #", "#   #", " ### "},
    {"  #  ", " ##  ", "  #  ", "  #  ", "  #  ", "  #  ", " ### "},
    {" ### ", "#   #", "    #", "   # ", "  #  ", " #   ", "#####"},
    {"#####", "   # ", "  #  ", "   # ", "    #", "#   #", " ### "},
    {"   # ", "  ## ", " # # ", "#  # ", "#####", "   # ", "   # "},
    {"#####", "#    ", "#### ", "    #", "    #", "#   #", " ### "},
    {"  ## ", " #   ", "#    ", "#### ", "#   #", "#   #", " ### "},
    {"#####", "    #", "   # ", "  #  ", " #   ", " #   ", " #   "},
    {" ### ", "#   #", "#   #", " ### ", "#   #", "#   #", " ### "},
    {" ### ", "#   #", "#   #", " ####", "    #", "   # ", " ##  "},
};
constexpr uint32_t gap = 1; // dots between digits, and of paper around the number

// Where the number's field lies, and how large a dot of it is.
struct field {
    uint32_t left, top, dot;
    uint32_t columns, lines; // in dots, paper included
};

field field_for(size_t digits, uint32_t hor, uint32_t ver)
{
    const auto columns = static_cast<uint32_t>(digits) * (digit_width + gap) + gap;
    const uint32_t lines = digit_height + 2 * gap;
    // Half of the picture's height, or what its width takes.
    const uint32_t dot = std::min(ver / 2 / lines, hor * 3 / 4 / columns);
    return {(hor - columns * dot) / 2, (ver - lines * dot) / 2, dot, columns, lines};
}

colour number_at(const std::string& digits, uint32_t column, uint32_t line)
{
    if (column < gap || line < gap || line >= gap + digit_height) { return paper; }
    const uint32_t place = (column - gap) / (digit_width + gap), in_digit = (column - gap) % (digit_width + gap);
    if (in_digit >= digit_width) { return paper; }
    return shapes[digits[place] - '0'][line - gap][in_digit] == '#' ? ink : paper;
}

} // namespace

std::vector<uint8_t> test_card(uint32_t number, uint32_t hor, uint32_t ver)
{
    const std::string digits = std::to_string(number);
    const field f = field_for(digits.size(), hor, ver);
    std::vector<uint8_t> pixels(size_t{hor} * ver * 4);
    uint8_t* p = pixels.data();
    for (uint32_t y = 0; y < ver; ++y) {
        for (uint32_t x = 0; x < hor; ++x, p += 4) {
            colour c = bars[uint64_t{x} * 8 / hor];
            if (x == 0 || y == 0 || x == hor - 1 || y == ver - 1) {
                c = ink;
            } else if (f.dot > 0 && x >= f.left && y >= f.top && (x - f.left) / f.dot < f.columns &&
                       (y - f.top) / f.dot < f.lines) {
                c = number_at(digits, (x - f.left) / f.dot, (y - f.top) / f.dot);
            }
            p[0] = not_shown;
            p[1] = c.red;
            p[2] = c.green;
            p[3] = c.blue;
        }
    }
    return pixels;
}

} // namespace rvk
