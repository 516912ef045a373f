#include "mem/mem.h"

#include "main/log.h"

#include <algorithm>
#include <atomic>
#include <bit>
#include <cstdlib>

#if __has_include(<sanitizer/asan_interface.h>)
#include <sanitizer/asan_interface.h> // without the sanitizer its macros do nothing
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

// Sizes double from class to class.
constexpr int class_of(unsigned size)
{
    return size == 0 ? 0 : static_cast<int>(std::bit_width((size - 1) / mem_type.front()));
}
static_assert(class_of(64) == 0 && class_of(65) == 1 && class_of(mem_type.back()) == mem_classes - 1);

void change_waiting(int type, int32_t by) RVK_REQUIRES(mutex_mem)
{
    waiting[type].store(waiting[type].load(std::memory_order_relaxed) + by, std::memory_order_relaxed);
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
        while (mem_block* block = mem_list[type]) {
            mem_list[type] = block->next;
            free(block);
            --made[type];
            change_waiting(static_cast<int>(type), -1);
        }
    }
}

void* mem_alloc(unsigned size)
{
    if (size > mem_type.back()) { return nullptr; }
    const int type = class_of(size);
    const uint32_t bytes = mem_type[static_cast<size_t>(type)];
    mem_block* block = mem_pop(type);
    if (block == nullptr) {
        block = static_cast<mem_block*>(malloc(sizeof(mem_block) + bytes));
        if (block == nullptr) { return nullptr; }
        ++made[type];
    }
    *block = {block, static_cast<uint32_t>(type), block + 1, bytes, 1, nullptr};
    ASAN_UNPOISON_MEMORY_REGION(block->data, bytes);
    return block->data;
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
    const int32_t still_waiting = waiting[type]; // read first: a block made and released meanwhile lowers nothing then
    return std::max(made[type] - still_waiting, 0);
}

int32_t mem_made(int type) { return made[type]; }

} // namespace rvk
