#include "mem/mem.h"

#include "main/log.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdlib>

#if defined(__has_feature) // clang's way to tell; g++ has a macro
#if __has_feature(address_sanitizer)
#define __SANITIZE_ADDRESS__ 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/asan_interface.h>
#else
#define ASAN_POISON_MEMORY_REGION(data, size) static_cast<void>(0)
#define ASAN_UNPOISON_MEMORY_REGION(data, size) static_cast<void>(0)
#endif

namespace rvk {

mutex mutex_mem;
mem_block* mem_list[mem_classes] RVK_GUARDED_BY(mutex_mem);

namespace {

mem_block* mem_tail[mem_classes] RVK_GUARDED_BY(mutex_mem); // last block of each list, undefined while it is empty
std::atomic<int32_t> made[mem_classes];                     // blocks the pool has, waiting or handed out
std::atomic<int32_t> waiting[mem_classes];                  // blocks in each list; written under mutex_mem

// The classes' sizes double from the first one's 64 bytes on.
constexpr int class_of(unsigned size)
{
    return size == 0 ? 0 : static_cast<int>(std::bit_width((size - 1) / mem_type.front()));
}
static_assert(class_of(64) == 0 && class_of(65) == 1 && class_of(mem_type.back()) == mem_classes - 1);

void change_waiting(int type, int32_t by) RVK_REQUIRES(mutex_mem)
{
    waiting[type].store(waiting[type].load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
}

mem_block* new_block(int type)
{
    auto* block = static_cast<mem_block*>(malloc(sizeof(mem_block) + mem_type[static_cast<size_t>(type)]));
    if (block != nullptr) { ++made[type]; }
    return block;
}

} // namespace

void mem_init()
{
    log_print(LOG_HERE, "USE MEM_MANAGE\n");
    const scoped_lock hold(mutex_mem);
    for (mem_block*& head : mem_list) { head = nullptr; }
    for (std::atomic<int32_t>& count : made) { count = 0; }
    for (std::atomic<int32_t>& count : waiting) { count = 0; }
}

void mem_uinit()
{
    const scoped_lock hold(mutex_mem);
    for (size_t type = 0; type < mem_classes; ++type) {
        while (mem_list[type] != nullptr) {
            mem_block* next = mem_list[type]->next;
            free(mem_list[type]);
            mem_list[type] = next;
            --made[type];
            change_waiting(static_cast<int>(type), -1);
        }
    }
}

void* mem_alloc(unsigned size)
{
    if (size > mem_type.back()) { return nullptr; }
    const int type = class_of(size);
    mem_block* block = mem_pop(type);
    if (block == nullptr) { block = new_block(type); }
    if (block == nullptr) { return nullptr; }
    void* data = block + 1;
    *block = {block, static_cast<uint32_t>(type), data, mem_type[static_cast<size_t>(type)], 1, nullptr};
    ASAN_UNPOISON_MEMORY_REGION(data, block->size);
    return data;
}

void mem_free(void* data)
{
    if (data == nullptr) { return; }
    mem_block* block = static_cast<mem_block*>(data) - 1;
    mem_push(static_cast<int>(block->type), block);
}

void mem_push(int type, mem_block* block)
{
    if (block == nullptr) { return; }
    if (type < 0 || type >= static_cast<int>(mem_classes)) {
        free(block);
        return;
    }
    bool again = false;
    {
        const scoped_lock hold(mutex_mem);
        again = block->used == 0;
        if (!again) {
            ASAN_POISON_MEMORY_REGION(block->data, block->size);
            block->used = 0;
            block->next = nullptr;
            (mem_list[type] == nullptr ? mem_list[type] : mem_tail[type]->next) = block;
            mem_tail[type] = block;
            change_waiting(type, 1);
        }
    }
    if (again) { log_print(LOG_HERE, "second release of block %p of %u bytes refused\n", block->data, block->size); }
}

mem_block* mem_pop(int type)
{
    const scoped_lock hold(mutex_mem);
    mem_block* block = mem_list[type];
    if (block == nullptr) { return nullptr; }
    mem_list[type] = block->next;
    change_waiting(type, -1);
    return block;
}

int32_t mem_in_use(int type)
{
    const int32_t still_waiting = waiting[type]; // first: what is made and released meanwhile must not count as less
    return std::max(made[type] - still_waiting, 0);
}

int32_t mem_made(int type) { return made[type]; }

} // namespace rvk
