// Wrong usage: it is told from everything else, names what was wrong with its value, and reaches no daemon.
#include "platform/endpoint_folder.h"
#include "run_rvkctl.h"
#include "rvkctl/fake_daemon.h"

#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace rvk;

namespace {

struct wrong_case {
    std::vector<std::string> given;
    const char* names;
};

const wrong_case wrongs[] = {
    {{}, "hello, read, write"},
    {{"frobnicate"}, "frobnicate"},
    {{"hello", "--frobnicate"}, "--frobnicate"},
    {{"hello", "again"}, "again"},
    {{"read", "1", "2"}, "LEN"},
    {{"read", "256", "0", "1"}, "SLOT \"256\": give a number from 0 to 255"},
    {{"read", "-1", "0", "1"}, "\"-1\""},
    {{"read", "1", "0x100000000", "1"}, "ADDR \"0x100000000\""},
    {{"read", "1", "99999999999999999999999", "1"}, "ADDR"},
    {{"read", "1", "10h", "1"}, "ADDR \"10h\""},
    {{"read", "1", "0x", "1"}, "ADDR \"0x\""},
    {{"read", "1", "", "1"}, "ADDR \"\""},
    {{"read", "1", "0", "0"}, "LEN \"0\""},
    {{"read", "1", "0", "1401"}, "LEN \"1401\""},
    {{"read", "1", "0", "1", "--model", "65536"}, "--model \"65536\""},
    {{"read", "1", "0", "1", "--no-ack"}, "--no-ack"},
    {{"read", "1", "0", "1", "--repeat", "-1"}, "--repeat \"-1\""},
    {{"read", "1", "0", "1", "--repeat", "2", "--interval", "0"}, "--interval \"0\": give a number from 1"},
    {{"read", "1", "0", "1", "--repeat", "2", "--out", "x"}, "--out and --repeat"},
    {{"read", "1", "0", "1", "--interval", "5"}, "--interval is for reads that are repeated"},
    {{"read", "1", "0", "1", "--all"}, "--all is for reads that are repeated"},
    {{"read", "1", "0", "1", "--verify"}, "--verify"},
    {{"write", "2", "0"}, "BYTES or --file"},
    {{"write", "2", "0", "aa", "--file", "x"}, "not both"},
    {{"write", "2", "0", ""}, "empty"},
    {{"write", "2", "0", " "}, "empty"},
    {{"write", "2", "0", "abc"}, "BYTES \"abc\""},
    {{"write", "2", "0", "a bc d"}, "BYTES \"a\""},
    {{"write", "2", "0", "0xab"}, "without 0x"},
    {{"write", "2", "0", "ag"}, "'g'"},
    {{"write", "2", "0xffffffff", "aabb"}, "0xffffffff"},
    {{"write", "2", "0", "--file", "/no/such/file"}, "/no/such/file"},
    {{"write", "2", "0", "--file", "/"}, "\"/\""},
    {{"write", "2", "0", "--file", "/dev/null"}, "is empty"},
    {{"picture"}, "picture put, picture get"},
    {{"picture", "show"}, "show"},
    {{"picture", "put", "", "--size", "2x2", "--buffer", "0"}, "FILE \"\""},
    {{"picture", "put", "/no/such/file", "--size", "2x2", "--buffer", "0"}, "/no/such/file"},
    {{"picture", "put", "/dev/null", "--size", "2x2", "--buffer", "0"}, "\"/dev/null\" is not a regular file"},
    {{"picture", "put", "/proc/version", "--size", "2x2", "--buffer", "0"}, "has 0 bytes, 2 x 2 pixels need 16"},
    {{"picture", "put", "x", "--size", "2", "--buffer", "0"}, "--size \"2\": give WxH"},
    {{"picture", "put", "x", "--size", "65536x2", "--buffer", "0"}, "width of --size \"65536\""},
    {{"picture", "put", "x", "--size", "60000x60000", "--buffer", "0"}, "at most 536870911 pixels"},
    {{"picture", "put", "x", "--size", "2x2", "--buffer", "256"}, "--buffer \"256\": give a number from 0 to 255"},
    {{"picture", "put", "x", "--size", "2x2", "--buffer", "0", "--verify"}, "--verify of a put needs --addr A"},
    {{"picture", "put", "x", "--size", "2x2", "--buffer", "0", "--addr", "0"}, "--addr \"0\" is for --verify alone"},
    {{"picture", "put", "x", "--size", "2x2", "--buffer", "0", "--addr", "a", "--verify"}, "--addr \"a\""},
    {{"picture", "get", "/", "--size", "2x2", "--addr", "0"}, "\"/\" is there and not a regular file"},
    {{"picture", "get", "x", "--size", "2x2", "--addr", "0x100000000"}, "--addr \"0x100000000\""},
    {{"update", "x.bin", "--type", "fpga", "--slot", "1"},
     "--type \"fpga\": give a name or its number: mcu-input (0x16)"},
    {{"update", "x.bin", "--type", "0x1f", "--slot", "1"}, "fpga-1e (0x1e)"},
    {{"hello", "--board", "256"}, "--board \"256\""},
    {{"hello", "--board", "x"}, "--board \"x\""},
    {{"hello", "--board", "1", "--board", "2"}, "--board"},
    {{"hello", "--as", "0x3B"}, "0x3b is the daemon itself"},
    {{"hello", "--as", "256"}, "--as \"256\""},
    {{"hello", "--timeout", "0"}, "--timeout \"0\""},
    {{"hello", "--timeout", "1.5"}, "--timeout \"1.5\""},
};

} // namespace

TEST(CommandLine, WrongUsageIsNamedAndSendsNothing)
{
    const endpoint_folder folder;
    fake_daemon daemon;
    for (const wrong_case& c : wrongs) {
        SCOPED_TRACE(c.names);
        const said plain = run_rvkctl(c.given);
        EXPECT_EQ(plain.status, 2);
        EXPECT_EQ(plain.out, "");
        EXPECT_NE(plain.err.find(c.names), std::string::npos) << plain.err;
        EXPECT_EQ(plain.err.find('\n'), plain.err.size() - 1) << "one line: " << plain.err;
        std::vector<std::string> as_json = c.given;
        as_json.emplace_back("--json");
        const auto object = nlohmann::json::parse(run_rvkctl(as_json).out);
        EXPECT_EQ(object["format_version"], 1);
        EXPECT_EQ(object["exit_status"], 2);
        EXPECT_EQ(object["error"]["kind"], "wrong_usage");
        EXPECT_NE(object["error"]["text"].get<std::string>().find(c.names), std::string::npos);
    }
    EXPECT_TRUE(daemon.finish().empty());
}

TEST(CommandLine, ABoardFromTheEnvironmentIsCheckedToo)
{
    const endpoint_folder folder;
    setenv("APCARD_SELF", "many", 1);
    const said ran = run_rvkctl({"hello"});
    EXPECT_EQ(ran.status, 2);
    EXPECT_NE(ran.err.find("APCARD_SELF \"many\""), std::string::npos) << ran.err;
}
