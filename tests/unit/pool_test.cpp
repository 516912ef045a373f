// Blocks: which class serves what, in which order they come back, and what is refused.
#include "eth_raw/min_buffer.h"
#include "mem/mem.h"

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
        ASSERT_TRUE(mem_type[type] >= size && (type == 0 || mem_type[type - 1] < size)) << size;
        ASSERT_EQ(reinterpret_cast<uintptr_t>(data) % alignof(std::max_align_t), 0u);
        memset(data, 0xEE, size); // all of it is ours
        mem_free(data);
        ASSERT_EQ(mem_in_use(static_cast<int>(type)), 0);
#ifdef __SANITIZE_ADDRESS__
        ASSERT_TRUE(__asan_address_is_poisoned(data)) << "a use after the release would go unseen";
#endif
    }
    EXPECT_EQ(mem_alloc(8193), nullptr);
    EXPECT_EQ(mem_alloc(0xFFFFFFFF), nullptr);
    mem_free(nullptr);
}

TEST(Pool, FirstReleasedFirstReusedAsItWas)
{
    std::vector<uint8_t*> blocks(20);
    uint8_t n = 0;
    for (uint8_t*& block : blocks) { block = static_cast<uint8_t*>(mem_alloc(600)), *block = n++; }
    for (uint8_t* block : blocks) { mem_free(block); }
    mem_free(blocks[3]); // a second time
    for (uint8_t i = 0; i < blocks.size(); ++i) {
        auto* again = static_cast<uint8_t*>(mem_alloc(1024));
        EXPECT_TRUE(again == blocks[i] && *again == i) << int{i};
    }
    EXPECT_EQ(mem_pop(4), nullptr) << "the one that was released twice";
    for (uint8_t* block : blocks) { mem_free(block); }
    mem_uinit();
    EXPECT_EQ(mem_made(4), 0);
}

TEST(Pool, LosesNothingBetweenThreads)
{
    const auto work = [](int thread) {
        for (int i = 0; i < 5'000; ++i) {
            std::array<int*, 16> blocks;
            for (int*& block : blocks) { *(block = static_cast<int*>(mem_alloc(100))) = thread; }
            for (int* block : blocks) {
                if (*block != thread) { ADD_FAILURE() << "a block has two owners"; }
                mem_free(block);
            }
        }
    };
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) { threads.emplace_back(work, t); }
    for (std::thread& thread : threads) { thread.join(); }
    EXPECT_EQ(mem_in_use(1), 0);
    EXPECT_LE(mem_made(1), 64) << "blocks that wait are not handed out again";
    mem_uinit();
}

TEST(MinBuffer, GoesRoundAndLooksNoFurther)
{
    EXPECT_EQ(RawMsgMinBuffGet(), nullptr) << "before its start";
    ASSERT_EQ(RawMsgInitMinBuffer(), 0);
    std::vector<uint8_t*> held(min_buffers);
    for (uint8_t*& one : held) { one = RawMsgMinBuffGet(), memset(one, 0xEE, min_buffer_bytes); }
    uint8_t other = 0;
    for (uint8_t* given : {held[1], &other, static_cast<uint8_t*>(nullptr)}) { RawMsgMinBuffFree(given); }
    EXPECT_EQ(RawMsgMinBuffGet(), nullptr) << "the next entry is in use, the one behind it is not";
    RawMsgMinBuffFree(held[0]);
    EXPECT_EQ(RawMsgMinBuffGet(), held[0]);
    EXPECT_EQ(RawMsgMinBuffGet(), held[1]);
    RawMsgUninitMinBuffer();
}

} // namespace
