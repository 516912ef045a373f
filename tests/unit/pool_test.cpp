// Blocks: which class serves what, in which order they come back, and what is refused.
#include "eth_raw/min_buffer.h"
#include "mem/mem.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <cstring>
#include <thread>
#include <vector>
#ifdef __SANITIZE_ADDRESS__
#include <sanitizer/asan_interface.h>
#endif

using namespace rvk;

namespace {

TEST(Pool, TheSmallestClassThatFitsServes)
{
    for (unsigned size = 0; size <= 8192; ++size) {
        void* data = mem_alloc(size);
        ASSERT_NE(data, nullptr);
        const auto type = (static_cast<const mem_block*>(data) - 1)->type;
        ASSERT_GE(mem_type[type], size);
        ASSERT_TRUE(type == 0 || mem_type[type - 1] < size) << size;
        ASSERT_EQ(reinterpret_cast<uintptr_t>(data) % alignof(std::max_align_t), 0u);
        ASSERT_EQ(mem_in_use(static_cast<int>(type)), 1);
        memset(data, 0xEE, size); // all of it is ours
        mem_free(data);
        ASSERT_EQ(mem_in_use(static_cast<int>(type)), 0);
#ifdef __SANITIZE_ADDRESS__
        ASSERT_TRUE(size == 0 || __asan_address_is_poisoned(data)) << "a use after the release would go unseen";
#endif
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
    EXPECT_EQ(mem_made(4), 0);
}

TEST(Pool, LosesNothingBetweenThreads)
{
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
    EXPECT_EQ(mem_in_use(1), 0);
    EXPECT_LE(mem_made(1), 8) << "blocks that wait are not handed out again";
    mem_uinit();
}

TEST(MinBuffer, GoesRoundAndLooksNoFurther)
{
    ASSERT_EQ(RawMsgInitMinBuffer(), 0);
    std::vector<uint8_t*> held;
    for (int i = 0; i < min_buffers; ++i) {
        held.push_back(RawMsgMinBuffGet());
        ASSERT_NE(held.back(), nullptr);
        memset(held.back(), i, min_buffer_bytes);
    }
    uint8_t other = 0;
    for (uint8_t* given : {held[1], &other, static_cast<uint8_t*>(nullptr)}) { RawMsgMinBuffFree(given); }
    EXPECT_EQ(RawMsgMinBuffGet(), nullptr) << "the next entry is in use, the one behind it is not";
    RawMsgMinBuffFree(held[0]);
    EXPECT_EQ(RawMsgMinBuffGet(), held[0]);
    EXPECT_EQ(RawMsgMinBuffGet(), held[1]);
    RawMsgUninitMinBuffer();
}

} // namespace
