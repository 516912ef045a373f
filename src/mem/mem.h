// The block pool: released blocks wait in eight size classes and are handed out again, first released first reused. A
// class grows to the most blocks that it has had in use at once; nothing goes back to the system while the daemon runs.
// A block is its allocator's until it is released. Any thread; one mutex for all classes, above the log's only.
#pragma once

#include "base/mutex.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace rvk {

inline constexpr size_t mem_classes = 8;
inline constexpr std::array<uint32_t, mem_classes> mem_type{64, 128, 256, 512, 1024, 2048, 4096, 8192}; // bytes; ours

// Header in front of each usable area, which it keeps aligned for any type.
struct alignas(std::max_align_t) mem_block {
    mem_block* self;
    uint32_t type; // class, index into mem_type
    void* data;    // the usable area
    uint32_t size; // mem_type[type]
    uint32_t used; // 1 while handed out, 0 once released
    mem_block* next;
};

extern mutex mutex_mem;
extern mem_block* mem_list[mem_classes] RVK_GUARDED_BY(mutex_mem); // free lists, oldest first

void mem_init();  // empties all lists; before any other call
void mem_uinit(); // gives every waiting block back to the system; only before the process exits

// Result: an area of at least `size` bytes, not cleared; null above 8,192 bytes or when the system has no memory.
[[nodiscard]] void* mem_alloc(unsigned size);

// Releases an area; null is ignored, a second release of the same block is refused and logged.
void mem_free(void* data);

// Appends a block to its class's list and marks it released. A class outside 0 to 7 gives it back to the system.
void mem_push(int type, mem_block* block);

// Takes the oldest block of a class. Result: null when none waits.
[[nodiscard]] mem_block* mem_pop(int type);

// Blocks of a class that are handed out, and all that the pool has of it; without the mutex, for reports and checks.
[[nodiscard]] int32_t mem_in_use(int type);
[[nodiscard]] int32_t mem_made(int type);

} // namespace rvk
