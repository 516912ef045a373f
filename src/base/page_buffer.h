// Big buffers, straight from the system: zero-filled pages that are given back at once, so that the daemon is as small
// after a picture as before it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace rvk {

// Owns its pages; large ones where the system has them, since page faults are most of what a picture in memory costs.
class page_buffer {
public:
    explicit page_buffer(size_t bytes); // 0 is a buffer too
    ~page_buffer();
    page_buffer(const page_buffer&) = delete;
    page_buffer& operator=(const page_buffer&) = delete;

    explicit operator bool() const { return start != nullptr; } // false when the system has no memory
    std::span<uint8_t> bytes() const { return {start, size}; }

private:
    uint8_t* start = nullptr;
    size_t size = 0;
    void* mapped = nullptr;
    size_t mapped_bytes = 0;
};

} // namespace rvk
