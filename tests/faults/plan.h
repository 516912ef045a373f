// What a daemon under test and its test share: a file mapped by both. The test says which allocation shall fail; the
// library preload.cpp, loaded into the daemon, carries it out and tells what it saw.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace rvk {

inline constexpr char fault_plan_variable[] = "RVK_FAULT_PLAN"; // the file's path, in the daemon's environment
inline constexpr size_t pool_classes = 8;

// All zero is a plan that changes nothing.
struct fault_plan {
    // Set before fail_at.
    std::atomic<uint64_t> room;         // bytes; a larger allocation always fails; 0: any size may be had
    std::atomic<uint32_t> all_behind;   // the allocations behind the one that fails fail too
    std::atomic<uint32_t> short_pauses; // pauses of more than 20 ms last 1 ms
    std::atomic<int64_t> fail_at;       // counts down with each allocation; the one that makes it 0 fails

    std::atomic<uint64_t> seen, failed; // allocations, since the process started

    // One more look was asked for than was given: the daemon gives its pool's waiting blocks back to the system, so
    // that the next requests allocate anew, and counts those that are handed out.
    std::atomic<uint32_t> looks_asked, looks_given;
    std::array<std::atomic<int32_t>, pool_classes> in_use;
};

} // namespace rvk
