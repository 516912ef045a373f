#include "cardsim/memory.h"

#include <algorithm>
#include <cstring>

namespace rvk {
card_memory::page& card_memory::page_for_writing(uint32_t number)
{
    if (last_page != nullptr && last_number == number) { return *last_page; }
    std::unique_ptr<page>& entry = pages[number];
    if (!entry) { entry = std::make_unique<page>(); }
    last_page = entry.get();
    last_number = number;
    return *last_page;
}

void card_memory::note_written(uint64_t first, uint64_t end)
{
    auto next = extents.upper_bound(first);
    if (next != extents.begin() && std::prev(next)->second >= first) {
        --next;
        next->second = std::max(next->second, end);
    } else {
        next = extents.emplace_hint(next, first, end);
    }
    for (auto behind = std::next(next); behind != extents.end() && behind->first <= next->second;) {
        next->second = std::max(next->second, behind->second);
        behind = extents.erase(behind);
    }
}

void card_memory::write(uint32_t addr, std::span<const uint8_t> bytes)
{
    while (!bytes.empty()) {
        const size_t offset = addr % page_bytes;
        const size_t count = std::min(bytes.size(), page_bytes - offset);
        std::memcpy(page_for_writing(static_cast<uint32_t>(addr / page_bytes)).data() + offset, bytes.data(), count);
        note_written(addr, uint64_t{addr} + count); // a page never crosses the end of the address space
        addr += static_cast<uint32_t>(count);
        bytes = bytes.subspan(count);
    }
}

void card_memory::read(uint32_t addr, std::span<uint8_t> out) const
{
    while (!out.empty()) {
        const size_t offset = addr % page_bytes;
        const size_t count = std::min(out.size(), page_bytes - offset);
        const auto found = pages.find(static_cast<uint32_t>(addr / page_bytes));
        if (found == pages.end()) {
            std::memset(out.data(), 0, count);
        } else {
            std::memcpy(out.data(), found->second->data() + offset, count);
        }
        addr += static_cast<uint32_t>(count);
        out = out.subspan(count);
    }
}

std::vector<extent> card_memory::written() const
{
    std::vector<extent> result;
    result.reserve(extents.size());
    for (const auto& [first, end] : extents) { result.push_back({first, end}); }
    return result;
}

} // namespace rvk
