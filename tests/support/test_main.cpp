// The main of every test program, built twice: with and without the demand to be on the bench.
//
// Tests that open links or start the daemon are refused outside, before anything is opened: eth0 would be the machine's
// own. A run in which no test was found fails: a test that cannot run never passes.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace {

// The variable alone may have been set by hand; the folder exists only inside.
bool inside_bench()
{
    const char* const mark = getenv("RVK_BENCH");
    return mark != nullptr && strcmp(mark, "1") == 0 && access("/run/rvk-bench", F_OK) == 0;
}

} // namespace

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    if (testing::GTEST_FLAG(list_tests)) { return RUN_ALL_TESTS(); }
    if (RVK_TEST_NEEDS_BENCH && !inside_bench()) {
        fprintf(stderr, "%s opens links, and outside the bench they are this machine's: run scripts/in-bench %s\n",
                argv[0], argv[0]);
        return 1;
    }
    const int failed = RUN_ALL_TESTS();
    if (testing::UnitTest::GetInstance()->test_to_run_count() == 0) {
        fprintf(stderr, "%s: no test was run\n", argv[0]);
        return 1;
    }
    return failed;
}
