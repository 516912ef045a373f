// Pictures and updates that do not come about: the daemon says little or nothing of why, the client what it can see.
#include "ap_msg/message.h"
#include "platform/endpoint_folder.h"
#include "run_rvkctl.h"
#include "rvkctl/fake_daemon.h"

#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>

using namespace rvk;

namespace {

std::vector<int> codes_of(const std::vector<seen_command>& seen)
{
    std::vector<int> codes;
    codes.reserve(seen.size());
    for (const seen_command& c : seen) { codes.push_back(c.code); }
    return codes;
}

struct refusal_case {
    const char *name, *type, *says;
};
const refusal_case refusals[] = {
    {"missing.bin", "fpga-1a", "No such file or directory"}, {"folder.bin", "fpga-1a", "not a regular file"},
    {"pipe.bin", "fpga-1a", "not a regular file"},           {"image.dat", "fpga-1a", "has .bin, .BIN or .Bin in it"},
    {"image.bin", "fpga-1a", "the card refused it"},         {"an image", "mcu-vpu", "a path of letters, digits"},
    {"-image", "mcu-vpu", "without '-' in front"},           {"image.dat", "mcu-vpu", "tool could not be run"},
};

} // namespace

TEST(FileCommands, ARefusedUpdateSaysWhatIsWrongWithItsFile)
{
    const endpoint_folder folder;
    fake_daemon daemon({.result = -1});
    ASSERT_EQ(mkdir(folder.file("folder.bin").c_str(), 0700), 0);
    ASSERT_EQ(mkfifo(folder.file("pipe.bin").c_str(), 0600), 0);
    for (const char* name : {"image.dat", "image.bin", "an image", "-image"}) {
        std::ofstream(folder.file(name)) << "image";
    }
    for (const refusal_case& c : refusals) {
        SCOPED_TRACE(c.name);
        const said ran = run_rvkctl({"update", folder.file(c.name), "--type", c.type, "--slot", "3"});
        EXPECT_EQ(ran.status, 1);
        EXPECT_NE(ran.err.find(c.says), std::string::npos) << ran.err;
        EXPECT_NE(ran.err.find("\"" + folder.file(c.name) + "\" failed (result -1)"), std::string::npos) << ran.err;
    }
}

TEST(FileCommands, AnEndOfTheToolIsTold)
{
    const endpoint_folder folder;
    for (const auto& [status, says] : {std::pair{127 << 8, "is not there"}, {3 << 8, "status 3"}, {9, "signal 9"}}) {
        fake_daemon daemon({.result = status});
        const said ran = run_rvkctl({"update", folder.file("image"), "--type", "0x18", "--slot", "3"});
        EXPECT_EQ(ran.status, 1);
        EXPECT_NE(ran.err.find(says), std::string::npos) << ran.err;
    }
}

TEST(FileCommands, AGetWhoseFilesCannotBeMadeEnds)
{
    const endpoint_folder folder;
    fake_daemon daemon;
    const said ran = run_rvkctl({"picture", "get", folder.file("back"), "--size", "2x2", "--addr", "0"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_NE(ran.err.find("opened neither \"" + folder.file("back") + "\" nor"), std::string::npos) << ran.err;
    EXPECT_EQ(codes_of(daemon.finish()), (std::vector<int>{command::greeting, command::file_read, command::greeting}));
}
