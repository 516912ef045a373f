// The loader's edges that the bench tool keeps away from it: it takes them, says so in the log and sends nothing.
#include "raw_msg/load_picture.h"

#include "link/bench_link.h"
#include "support/log_capture.h"

#include <cstdlib>
#include <fstream>
#include <unistd.h>

using namespace rvk;

namespace {

struct LoaderEdges : LinkTest {
    LoaderEdges()
    {
        EXPECT_NE(mkstemps(name, 4), -1);
        std::ofstream(name) << "0123456789abcdef";
    }
    ~LoaderEdges() override { unlink(name); }
    char name[32] = "/tmp/rvk-loader-XXXXXX.txt";
};

} // namespace

TEST_F(LoaderEdges, ASelectorThatSelectsNothingSendsNothing)
{
    static constexpr struct {
        const char *ts_sel, *fpga_sel, *logs;
    } rows[] = {
        {"ex", "e11", "ts_sel=120,fpga_sel=1,ddr_sel=1,addr=0x10,hor=2,ver=2\n"},
        {"ee", "e21", "ts_sel=101,fpga_sel=255,ddr_sel=1,addr=0x10,hor=2,ver=2\n"},
        {"ee", "e0C", "ts_sel=101,fpga_sel=0,ddr_sel=255,addr=0x10,hor=2,ver=2\n"},
        {"", "", "ts_sel=0,fpga_sel=255,ddr_sel=255,addr=0x10,hor=2,ver=2\n"},
        {"e", "e1", "ts_sel=0,fpga_sel=1,ddr_sel=255,addr=0x10,hor=2,ver=2\n"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.logs);
        static_cast<void>(take_log());
        EXPECT_EQ(LoadPicture(0x10, 2, 2, name, row.ts_sel, row.fpga_sel), 0);
        const std::string text = log_text();
        const std::string begins = "found file " + std::string(name) + "\n" + row.logs + "\ntotal time:";
        EXPECT_EQ(text.substr(0, begins.size()), begins);
        EXPECT_EQ(text.substr(text.size() - 6), " sec\n\n");
    }
}

TEST_F(LoaderEdges, WhatCannotBeReadOrHasNoSizeIsRefused)
{
    EXPECT_EQ(LoadPicture(0, 2, 2, "/no/such.bmp", "ee", "e11"), -1);
    EXPECT_EQ(log_text(), "not found file /no/such.bmp\n");
    EXPECT_EQ(LoadPicture(0, 2, 2, "/tmp", "ee", "e11"), -1);
    EXPECT_EQ(LoadPicture(0, 65'536, 1, name, "ee", "e11"), -1);
    EXPECT_EQ(LoadPicture(0, -1, 1, name, "ee", "e11"), -1);
    EXPECT_EQ(LoadPicture(0, 32'768, 16'384, name, "ee", "e11"), -1);
    EXPECT_EQ(logged("refused: "), 3u) << log_text();
    EXPECT_EQ(LoadPicture(0, 0, 5, name, "ee", "e11"), 0) << "a picture of no width is one";
    EXPECT_EQ(logged("send fail"), 0u) << "and nothing of it is sent";
}
