// The tests' own eyes: a sink that loses or cuts lines would let every test of a log line pass or fail by chance.
#include "main/log.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

using namespace rvk;

TEST(LogCapture, KeepsOriginAndTextWhole)
{
    take_log();
    const std::string long_text(5000, 'x');
    log_print("module", "function", 7, "%s:%d\n", long_text.c_str(), 42);
    EXPECT_EQ(logged("x:42"), 1u);
    EXPECT_EQ(logged("y"), 0u);
    const auto lines = take_log();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].module, "module");
    EXPECT_EQ(lines[0].function, "function");
    EXPECT_EQ(lines[0].line, 7);
    EXPECT_EQ(lines[0].text, long_text + ":42\n");
    EXPECT_TRUE(take_log().empty());
}

TEST(LogCapture, LosesNothingOfManyThreads)
{
    take_log();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; t++) {
        threads.emplace_back([] {
            for (int i = 0; i < 500; i++) { log_print(LOG_HERE, "line %d\n", i); }
        });
    }
    for (auto& thread : threads) { thread.join(); }
    EXPECT_EQ(logged("line 499\n"), 4u);
    EXPECT_EQ(take_log().size(), 2000u);
}
