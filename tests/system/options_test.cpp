// The two switches, and what a line of the log looks like.
#include "system/daemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <sstream>
#include <unistd.h>

using namespace rvk;

namespace {

struct option_case {
    const char* name;
    std::vector<std::string> arguments;
    bool on_stdout, in_file;
};
const option_case option_cases[] = {
    {"none", {}, false, false},
    {"console", {"-d"}, true, false},
    {"file", {"-f"}, false, true},
    {"both", {"-d", "-f"}, true, true},
    {"both in one word, repeated", {"-df", "-f", "-d"}, true, true},
    {"an unknown one", {"-x"}, false, false},
    {"a long unknown one", {"--nonsense"}, false, false},
    {"an unknown one does not hide those around it", {"-d", "-xf", "word"}, true, true},
};

// Every line has the header, with values that can be true.
void expect_log(const std::string& log, pid_t pid, time_t started)
{
    ASSERT_FALSE(log.empty());
    EXPECT_EQ(log.back(), '\n');
    std::istringstream lines(log);
    for (std::string text; std::getline(lines, text);) {
        const log_line line = parse_log_line(text);
        ASSERT_TRUE(line.whole) << text;
        EXPECT_EQ(line.pid, pid);
        EXPECT_GT(line.source_line, 0);
        tm at{};
        ASSERT_NE(strptime(line.time.c_str(), "%Y/%m/%d %H:%M:%S", &at), nullptr) << text;
        at.tm_isdst = -1;
        EXPECT_GE(mktime(&at), started);
        EXPECT_LE(mktime(&at), time(nullptr));
    }
}

} // namespace

TEST(Options, EachSwitchOpensItsOutput)
{
    for (const option_case& row : option_cases) {
        SCOPED_TRACE(row.name);
        unlink(log_files[0].c_str());
        const time_t started = time(nullptr);
        daemon_process d(row.arguments);
        ASSERT_TRUE(conversation().is_greeted());
        EXPECT_EQ(d.end_by(SIGTERM), 0);
        const std::string in_file = file_text(log_files[0]);
        EXPECT_EQ(access(log_files[0].c_str(), F_OK), 0) << "created by the first call whatever the switches";
        EXPECT_EQ(d.output().empty(), !row.on_stdout);
        EXPECT_EQ(in_file.empty(), !row.in_file);
        if (row.on_stdout) { expect_log(d.output(), d.pid(), started); }
        if (row.in_file) { expect_log(in_file, d.pid(), started); }
        if (row.on_stdout && row.in_file) { EXPECT_EQ(d.output(), in_file); }
    }
}

TEST(Options, ARestartBeginsWithAnEmptyFile)
{
    for (int run = 0; run < 2; ++run) {
        daemon_process d({"-f"});
        ASSERT_TRUE(conversation().is_greeted());
        EXPECT_EQ(d.end_by(SIGTERM), 0);
    }
    const std::string log = file_text(log_files[0]);
    const size_t first = log.find("USE MEM_MANAGE\n");
    ASSERT_NE(first, std::string::npos);
    EXPECT_EQ(log.find("USE MEM_MANAGE\n", first + 1), std::string::npos);
}

TEST(Start, TheKernelsLimitsAreRaisedFirst)
{
    unlink(sysctl_record.c_str());
    daemon_process d({"-d"});
    ASSERT_TRUE(d.shows("USE MEM_MANAGE"));
    EXPECT_EQ(file_text(sysctl_record), "-w|net.core.wmem_max=|8388608|\n-w|net.core.wmem_default=|8388608|\n");
    EXPECT_EQ(d.end_by(SIGTERM), 0);
}
