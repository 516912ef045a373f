// A read that is repeated: what is shown of it, and how it ends. And what an interrupt leaves behind.
#include "platform/endpoint_folder.h"
#include "run_rvkctl.h"
#include "rvkctl/fake_daemon.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sstream>

using namespace rvk;

namespace {

struct watch_case {
    const char* name;
    manners how;
    std::vector<std::string> more;
    int status;
    long values, complaints; // lines on standard output, and on standard error
};

const watch_case cases[] = {
    {"nothing new: the first value alone", {}, {"--repeat", "4"}, 0, 1, 0},
    {"all of them", {}, {"--repeat", "4", "--all"}, 0, 4, 0},
    {"a change", {.spoilt = 0x10, .spoilt_after = 2}, {"--repeat", "4"}, 0, 2, 0},
    {"failures are told once, and counted at the end", {.result = -1, .good_answers = 2}, {"--repeat", "4"}, 1, 1, 2},
    {"or each time", {.result = -1, .good_answers = 2}, {"--repeat", "4", "--all"}, 1, 2, 3},
    {"no answer", {.answers = false}, {"--repeat", "2", "--timeout", "30"}, 3, 0, 2},
    {"short data is shown, and a failure", {.data_missing = 1}, {"--repeat", "2"}, 1, 1, 2},
    {"until it is interrupted", {.interrupts_at = 3}, {"--repeat", "0", "--all"}, 0, 3, 0},
};

long lines_of(const std::string& text) { return std::count(text.begin(), text.end(), '\n'); }

} // namespace

TEST(Watch, ShowsWhatIsNew)
{
    for (const watch_case& c : cases) {
        SCOPED_TRACE(c.name);
        const endpoint_folder folder;
        fake_daemon daemon(c.how);
        std::vector<std::string> given{"read", "2", "0x10", "3", "--interval", "1"};
        given.insert(given.end(), c.more.begin(), c.more.end());
        const said ran = run_rvkctl(given);
        EXPECT_EQ(ran.status, c.status);
        EXPECT_EQ(lines_of(ran.out), c.values) << ran.out;
        EXPECT_EQ(lines_of(ran.err), c.complaints) << ran.err;
    }
}

TEST(Watch, JsonHasAnObjectALine)
{
    const endpoint_folder folder;
    fake_daemon daemon({.result = -1, .good_answers = 1});
    const said ran = run_rvkctl({"read", "2", "0x10", "2", "--repeat", "3", "--interval", "1", "--json"});
    EXPECT_EQ(ran.status, 1);
    std::istringstream lines(ran.out);
    std::string good, bad, none;
    std::getline(lines, good);
    std::getline(lines, bad);
    EXPECT_FALSE(std::getline(lines, none)) << none;
    EXPECT_EQ(nlohmann::json::parse(good)["data"], "0000");
    EXPECT_TRUE(nlohmann::json::parse(good)["time"].is_string());
    EXPECT_EQ(nlohmann::json::parse(bad)["error"]["kind"], "refused");
}

TEST(Interrupt, LeavesNoFilesOfAReadBack)
{
    const endpoint_folder folder;
    const std::string scratch = folder.file("scratch");
    std::filesystem::create_directory(scratch);
    std::ofstream(folder.file("picture")) << std::string(16, 'p');
    setenv("TMPDIR", scratch.c_str(), 1);
    EXPECT_EXIT(
        {
            fake_daemon daemon({.interrupts_at = 2}); // greeting, picture, read-back
            run_uncaptured({"picture", "put", folder.file("picture"), "--size", "2x2", "--buffer", "0", "--verify",
                            "--addr", "0"});
        },
        testing::KilledBySignal(SIGINT), "");
    unsetenv("TMPDIR");
    EXPECT_TRUE(std::filesystem::is_empty(scratch));
}
