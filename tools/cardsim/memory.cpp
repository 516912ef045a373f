#include "cardsim/memory.h"

#include <algorithm>
#include <cstring>

namespace rvk {

void card_memory::write(uint64_t addr, std::span<const uint8_t> bytes)
{
    while (!bytes.empty()) {
        addr &= mask;
        const size_t offset = addr % sizeof(page);
        const size_t count = std::min(bytes.size(), sizeof(page) - offset);
        std::unique_ptr<page>& entry = pages[addr / sizeof(page)];
        if (!entry) { entry = std::make_unique<page>(); }
        std::memcpy(entry->data() + offset, bytes.data(), count);
        if (lists) { note(addr, addr + count); }
        addr += count;
        bytes = bytes.subspan(count);
    }
}

void card_memory::read(uint64_t addr, std::span<uint8_t> out) const
{
    while (!out.empty()) {
        addr &= mask;
        const size_t offset = addr % sizeof(page);
        const size_t count = std::min(out.size(), sizeof(page) - offset);
        const auto found = pages.find(addr / sizeof(page));
        if (found == pages.end()) {
            std::memset(out.data(), 0, count);
        } else {
            std::memcpy(out.data(), found->second->data() + offset, count);
        }
        addr += count;
        out = out.subspan(count);
    }
}

std::vector<uint8_t> card_memory::read(uint64_t addr, size_t count) const
{
    std::vector<uint8_t> bytes(count);
    read(addr, bytes);
    return bytes;
}

// Joins it with all that it overlaps or touches.
void card_memory::note(uint64_t first, uint64_t end)
{
    auto at = noted.upper_bound(first);
    if (at != noted.begin() && std::prev(at)->second >= first) { first = (--at)->first; }
    for (; at != noted.end() && at->first <= end; at = noted.erase(at)) { end = std::max(end, at->second); }
    noted.emplace_hint(at, first, end);
}

} // namespace rvk
