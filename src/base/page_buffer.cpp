#include "base/page_buffer.h"

#include <sys/mman.h>

namespace rvk {
namespace {

constexpr size_t large_page = size_t{2} * 1024 * 1024; // of x86-64 and of ARM with 4 KiB pages

} // namespace

page_buffer::page_buffer(size_t bytes)
{
    const size_t room = bytes + large_page;
    if (room < bytes) { return; }
    void* pages = mmap(nullptr, room, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) { return; }
    mapped = pages;
    mapped_bytes = room;
    size = bytes;
    const auto address = reinterpret_cast<uintptr_t>(pages);
    start = static_cast<uint8_t*>(pages) + (large_page - address % large_page) % large_page;
    madvise(start, bytes, MADV_HUGEPAGE); // a hint: without large pages the buffer only costs more faults
}

page_buffer::~page_buffer()
{
    if (mapped != nullptr) { munmap(mapped, mapped_bytes); }
}

} // namespace rvk
