// Blocks: which class serves what, in which order they come back, and what is refused.
#include "mem/mem.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

using namespace rvk;

namespace {

TEST(Pool, TheSmallestClassThatFitsServes)
{
    for (unsigned size = 0; size <= 8192; ++size) {
        void* data = mem_alloc(size);
        const auto type = (static_cast<const mem_block*>(data) - 1)->type;
        ASSERT_TRUE(mem_type[type] >= size && (type == 0 || mem_type[type - 1] < size)) << size;
        ASSERT_EQ(reinterpret_cast<uintptr_t>(data) % alignof(std::max_align_t), 0u);
        memset(data, 0xEE, size); // all of it is ours
        mem_free(data);
        ASSERT_EQ(mem_in_use(static_cast<int>(type)), 0);
    }
    EXPECT_TRUE(mem_alloc(8193) == nullptr && mem_alloc(0xFFFFFFFF) == nullptr);
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

} // namespace
