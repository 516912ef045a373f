// Blocks: which class serves what, in which order they come back, and what is refused. And the one way to sleep.
#include "base/pause.h"
#include "eth_raw/min_buffer.h"
#include "mem/mem.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstring>
#include <ctime>
#include <sys/time.h>
#include <thread>
#include <vector>

using namespace rvk;

namespace {

int class_of(const void* data) { return static_cast<int>((static_cast<const mem_block*>(data) - 1)->type); }

TEST(Pool, TheSmallestClassThatFitsServes)
{
    for (unsigned size = 0; size <= 8192; ++size) {
        void* data = mem_alloc(size);
        ASSERT_NE(data, nullptr);
        const int type = class_of(data);
        ASSERT_GE(mem_type[static_cast<size_t>(type)], size);
        ASSERT_TRUE(type == 0 || mem_type[static_cast<size_t>(type) - 1] < size) << size;
        ASSERT_EQ(reinterpret_cast<uintptr_t>(data) % alignof(std::max_align_t), 0u);
        ASSERT_EQ(mem_in_use(type), 1);
        memset(data, 0xEE, size); // all of it is ours
        mem_free(data);
        ASSERT_EQ(mem_in_use(type), 0);
    }
    EXPECT_EQ(mem_alloc(8193), nullptr);
    EXPECT_EQ(mem_alloc(0xFFFFFFFF), nullptr);
    mem_free(nullptr);
}

TEST(Pool, FirstReleasedFirstReusedAsItWas)
{
    take_log();
    std::vector<uint8_t*> blocks;
    for (uint8_t i = 0; i < 20; ++i) {
        blocks.push_back(static_cast<uint8_t*>(mem_alloc(600)));
        *blocks.back() = i;
    }
    for (uint8_t* block : blocks) { mem_free(block); }
    mem_free(blocks[3]);
    EXPECT_EQ(logged("second release of block"), 1u);
    for (size_t i = 0; i < blocks.size(); ++i) {
        auto* again = static_cast<uint8_t*>(mem_alloc(1024));
        EXPECT_EQ(again, blocks[i]) << i;
        EXPECT_EQ(*again, i);
    }
    EXPECT_EQ(mem_pop(4), nullptr) << "the one that was released twice";
    for (uint8_t* block : blocks) { mem_free(block); }
    mem_uinit();
}

TEST(Pool, LosesNothingBetweenThreads)
{
    const int32_t before = mem_in_use(1);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 5000; ++i) {
                auto* a = static_cast<int*>(mem_alloc(100));
                auto* b = static_cast<int*>(mem_alloc(128));
                *a = *b = t;
                if (*a != t || a == b) { ADD_FAILURE() << "a block has two owners"; }
                mem_free(a);
                mem_free(b);
            }
        });
    }
    for (std::thread& thread : threads) { thread.join(); }
    EXPECT_EQ(mem_in_use(1), before);
    mem_uinit();
    EXPECT_EQ(mem_in_use(1), before);
}

TEST(MinBuffer, GoesRoundAndLooksNoFurther)
{
    take_log();
    EXPECT_EQ(RawMsgMinBuffGet(), nullptr);
    EXPECT_EQ(logged("min buffer is NULL\n"), 1u);
    ASSERT_EQ(RawMsgInitMinBuffer(), 0);
    std::vector<uint8_t*> held;
    for (int i = 0; i < min_buffers; ++i) {
        held.push_back(RawMsgMinBuffGet());
        ASSERT_NE(held.back(), nullptr);
        memset(held.back(), i, min_buffer_bytes);
    }
    RawMsgMinBuffFree(held[1]);
    EXPECT_EQ(RawMsgMinBuffGet(), nullptr) << "the next entry is in use, the one behind it is not";
    EXPECT_EQ(logged("min buffer is not enough\n"), 1u);
    RawMsgMinBuffFree(held[0]);
    EXPECT_EQ(RawMsgMinBuffGet(), held[0]);
    EXPECT_EQ(RawMsgMinBuffGet(), held[1]);
    uint8_t other = 0;
    RawMsgMinBuffFree(&other);
    RawMsgMinBuffFree(nullptr);
    EXPECT_EQ(logged("is no small buffer"), 2u);
    RawMsgUninitMinBuffer();
    EXPECT_EQ(RawMsgMinBuffGet(), nullptr);
}

TEST(Pause, LastsWhateverSignalsArrive)
{
    std::signal(SIGALRM, [](int) {});
    const itimerval every{{0, 1000}, {0, 1000}}, never{};
    setitimer(ITIMER_REAL, &every, nullptr);
    timespec begin{}, end{};
    clock_gettime(CLOCK_MONOTONIC, &begin);
    pause_ms(50);
    clock_gettime(CLOCK_MONOTONIC, &end);
    setitimer(ITIMER_REAL, &never, nullptr);
    EXPECT_GE((end.tv_sec - begin.tv_sec) * 1'000'000'000LL + (end.tv_nsec - begin.tv_nsec), 50'000'000);
}

} // namespace
