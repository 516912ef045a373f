// The board's number: what the environment may say.
#include "platform/platform.h"
#include "support/log_capture.h"

#include <cstdlib>
#include <gtest/gtest.h>

namespace {

struct board_case {
    const char* text;
    int board;
    bool refused;
};

const board_case boards[] = {
    {"0", 0, false},    {"255", 255, false}, {"0x0C", 12, false}, {"0XfF", 255, false},
    {"010", 10, false}, {"", 1, false},      {"256", 1, true},    {"-1", 1, true},
    {" 3", 1, true},    {"3 ", 1, true},     {"0x", 1, true},     {"0x-1", 1, true},
    {"0xg", 1, true},   {"f", 1, true},      {"+3", 1, true},     {"0x100", 1, true},
    {"0x+1", 1, true},  {"0x 1", 1, true},   {"0x0x1", 1, true},  {"99999999999999999999", 1, true},
};

} // namespace

TEST(Board, ANumberOrTheDefault)
{
    rvk::take_log();
    for (const board_case& c : boards) {
        setenv("APCARD_SELF", c.text, 1);
        EXPECT_EQ(apcard_bit_self(), c.board) << '"' << c.text << '"';
    }
    unsetenv("APCARD_SELF");
    EXPECT_EQ(apcard_bit_self(), 1);
    EXPECT_EQ(rvk::logged("APCARD_SELF"), 1u) << "asked for with every message: one line, not one each";
}
