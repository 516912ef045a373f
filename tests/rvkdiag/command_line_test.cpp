// Wrong usage: it is told from everything else, names what was wrong with its value, and opens nothing. None of these
// command lines may reach a link: outside the bench they would be this machine's.
#include "rvkdiag/command_line.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

using namespace rvk;

namespace {

struct said {
    int status;
    std::string out, err;
};

said run(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "rvkdiag");
    std::vector<char*> argv;
    for (std::string& argument : arguments) { argv.push_back(argument.data()); }
    argv.push_back(nullptr);
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = diag::run_command_line(static_cast<int>(arguments.size()), argv.data());
    std::string out = testing::internal::GetCapturedStdout();
    return {status, std::move(out), testing::internal::GetCapturedStderr()};
}

struct wrong_case {
    std::vector<std::string> given;
    const char* names;
};

const wrong_case wrongs[] = {
    {{}, "fpga, picture, lvds, bus read, bus write, usage"},
    {{"frobnicate"}, "frobnicate"},
    {{"fpga"}, "ID is required"},
    {{"fpga", "0", "readw", "0", "1", "100"}, "LEN|VALUE|FILENAME is required"},
    {{"fpga", "0", "readw", "0", "1", "100", "4", "5"}, "5"},
    {{"fpga", "3", "read", "0", "1", "100", "4"}, "ID \"3\": give a hexadecimal number from 0 to 2"},
    {{"fpga", "0", "peek", "0", "1", "100", "4"}, "KIND \"peek\": give read, readw, write, writea or writeaw"},
    {{"fpga", "0", "read", "10000", "1", "100", "4"}, "MODEL \"10000\""},
    {{"fpga", "0", "read", "0", "100", "100", "4"}, "SLOT \"100\""},
    {{"fpga", "0", "read", "0", "1", "10g", "4"}, "ADDR \"10g\""},
    {{"fpga", "0", "read", "0", "1", "100000000", "4"}, "ADDR \"100000000\""},
    {{"fpga", "0", "read", "0", "1", "100", "0"}, "LEN \"0\""},
    {{"fpga", "0", "read", "0", "1", "100", "579"},
     "LEN \"579\": give a hexadecimal number from 1 to 578 (1400 decimal)"},
    {{"fpga", "0", "readw", "0", "1", "ffffffff", "2"}, "0xffffffff"},
    {{"fpga", "0", "write", "0", "1", "100", "abc"}, "VALUE \"abc\": 3 hex digits"},
    {{"fpga", "0", "write", "0", "1", "100", ""}, "VALUE is empty"},
    {{"fpga", "0", "write", "0", "1", "100", "0x12"}, "VALUE \"0x12\" is not hex digits alone, so it names a file"},
    {{"fpga", "0", "write", "0", "1", "100", "/"}, "\"/\""},
    {{"fpga", "0", "write", "0", "1", "100", "/dev/null"}, "is empty"},
    {{"fpga", "0", "write", "0", "1", "fffffffe", "aabbcc"}, "0xffffffff"},
    {{"picture", "0", "3x2", "x.bmp", "ee"}, "FPGA_SEL is required"},
    {{"picture", "0", "3*2", "x.bmp", "ee", "e10"}, "WxH \"3*2\""},
    {{"picture", "0", "0x2", "x.bmp", "ee", "e10"}, "WxH \"0x2\""},
    {{"picture", "0", "65536x2", "x.bmp", "ee", "e10"}, "width of WxH \"65536\""},
    {{"picture", "0", "32768x16384", "x.bmp", "ee", "e10"}, "at most 536870911 pixels"},
    {{"picture", "12k", "3x2", "x.bmp", "ee", "e10"}, "ADDR \"12k\""},
    {{"picture", "0", "3x2", "/", "ex", "e10"}, "TS_SEL \"ex\" selects nothing"},
    {{"picture", "0", "3x2", "/", "e", "e10"}, "TS_SEL \"e\" selects nothing"},
    {{"picture", "0", "3x2", "/", "ee", "e20"}, "FPGA_SEL \"e20\" selects nothing, so nothing was sent: its second"},
    {{"picture", "0", "3x2", "/", "ee", "e1c"}, "FPGA_SEL \"e1c\" selects nothing, so nothing was sent: its third"},
    {{"picture", "0", "3x2", "/", "ee", "e1"}, "its third"},
    {{"picture", "0", "3x2", "/no/such.bmp", "ee", "e10"}, "file \"/no/such.bmp\" cannot be read: No such file"},
    {{"picture", "0", "3x2", "/tmp", "ee", "e10"}, "file \"/tmp\" cannot be read: it is no regular file"},
    {{"lvds"}, "give --reboot"},
    {{"lvds", "--reboot=false"}, "give --reboot"},
    {{"bus"}, "bus read, bus write"},
    {{"bus", "verify", "1", "0", "1", "x"}, "verify"},
    {{"bus", "read", "3", "0", "1", "x"}, "LINK \"3\""},
    {{"bus", "read", "1", "0", "0", "x"}, "LEN \"0\""},
    {{"bus", "read", "1", "0", "67108865", "x"}, "LEN \"67108865\""},
    {{"bus", "read", "1", "0xffffffff", "2", "x"}, "0xffffffff"},
    {{"bus", "write", "1", "0", "/no/such/file"}, "/no/such/file"},
    {{"bus", "write", "1", "0"}, "FILE is required"},
};

} // namespace

TEST(CommandLine, WrongUsageIsNamedAndOpensNothing)
{
    for (const wrong_case& c : wrongs) {
        SCOPED_TRACE(c.names);
        const said ran = run(c.given);
        EXPECT_EQ(ran.status, 2);
        EXPECT_EQ(ran.out, "");
        EXPECT_NE(ran.err.find(c.names), std::string::npos) << ran.err;
        EXPECT_EQ(ran.err.find("rvkdiag: "), 0u) << ran.err;
        EXPECT_EQ(ran.err.find('\n'), ran.err.size() - 1) << "one line: " << ran.err;
    }
}

TEST(CommandLine, ABlockThatIsTooLargeIsRefusedBeforeItIsSent)
{
    char name[] = "/tmp/rvkdiag-block-XXXXXX";
    ASSERT_NE(mkstemp(name), -1);
    ASSERT_EQ(truncate(name, 0x4000001), 0);
    const said ran = run({"bus", "write", "1", "0", name});
    unlink(name);
    EXPECT_EQ(ran.status, 2);
    EXPECT_NE(ran.err.find("larger than a block"), std::string::npos) << ran.err;
}

TEST(CommandLine, UsageIsTheSystemsOwnText)
{
    const said ran = run({"usage"});
    EXPECT_EQ(ran.status, 0);
    EXPECT_EQ(ran.out, "usage: \n"
                       "    [ Hex ]\n"
                       "    [ fpga id read model slot addr len ]\n"
                       "    [ fpga id readw model slot addr len ]\n"
                       "    [ fpga id write model slot addr value ]\n"
                       "    [ fpga id writea model slot addr value ]\n"
                       "    [ fpga id writeaw model slot addr value ]\n"
                       "    [ fpga id write model slot addr filename ]\n"
                       "    [ fpga id writea model slot addr filename ]\n");
}

TEST(CommandLine, HelpTellsAScriptWhatItNeeds)
{
    for (const std::vector<std::string>& given : {std::vector<std::string>{"--help"}, {"fpga", "-h"}}) {
        const said ran = run(given);
        EXPECT_EQ(ran.status, 0);
        for (const char* part : {"What \"done\" means", "Exit status", "Examples", "TS_SEL", "--reboot"}) {
            EXPECT_NE(ran.out.find(part), std::string::npos) << part;
        }
    }
}
