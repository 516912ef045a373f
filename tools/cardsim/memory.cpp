#include "cardsim/memory.h"

#include <algorithm>

namespace rvk {
namespace {

constexpr uint64_t address_end = uint64_t{1} << 32;

} // namespace

void extent_list::note(uint64_t first, uint64_t end)
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
        const auto count = static_cast<size_t>(std::min<uint64_t>(bytes.size(), address_end - addr));
        pages.write(addr, bytes.first(count));
        extents.note(addr, uint64_t{addr} + count);
        addr += static_cast<uint32_t>(count);
        bytes = bytes.subspan(count);
    }
}

void card_memory::read(uint32_t addr, std::span<uint8_t> out) const
{
    while (!out.empty()) {
        const auto count = static_cast<size_t>(std::min<uint64_t>(out.size(), address_end - addr));
        pages.read(addr, out.first(count));
        addr += static_cast<uint32_t>(count);
        out = out.subspan(count);
    }
}

std::vector<extent> extent_list::list() const
{
    std::vector<extent> result;
    result.reserve(extents.size());
    for (const auto& [first, end] : extents) { result.push_back({first, end}); }
    return result;
}

} // namespace rvk
