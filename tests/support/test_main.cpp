// The main of every test program of C++. A run in which no test was found fails: a test that cannot run never passes.
#include <gtest/gtest.h>

#include <cstdio>

int main(int argc, char** argv)
{
    testing::InitGoogleTest(&argc, argv);
    const int failed = RUN_ALL_TESTS();
    if (testing::GTEST_FLAG(list_tests) || testing::UnitTest::GetInstance()->test_to_run_count() > 0) { return failed; }
    fprintf(stderr, "%s: no test was run\n", argv[0]);
    return 1;
}
