// Bytes at 64-bit addresses, of which only pages that were written exist; the others read as 0.
// What a card's register memory and its picture memory are made of. No lock of its own.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>
#include <unordered_map>

namespace rvk {

template <size_t page_bytes>
class sparse_pages {
public:
    void write(uint64_t addr, std::span<const uint8_t> bytes)
    {
        while (!bytes.empty()) {
            const size_t offset = addr % page_bytes;
            const size_t count = std::min(bytes.size(), page_bytes - offset);
            std::memcpy(page_for_writing(addr / page_bytes).data() + offset, bytes.data(), count);
            addr += count;
            bytes = bytes.subspan(count);
        }
    }
    void read(uint64_t addr, std::span<uint8_t> out) const
    {
        while (!out.empty()) {
            const size_t offset = addr % page_bytes;
            const size_t count = std::min(out.size(), page_bytes - offset);
            const auto found = pages.find(addr / page_bytes);
            if (found == pages.end()) {
                std::memset(out.data(), 0, count);
            } else {
                std::memcpy(out.data(), found->second->data() + offset, count);
            }
            addr += count;
            out = out.subspan(count);
        }
    }

private:
    using page = std::array<uint8_t, page_bytes>;

    page& page_for_writing(uint64_t number)
    {
        if (last_page != nullptr && last_number == number) { return *last_page; }
        std::unique_ptr<page>& entry = pages[number];
        if (!entry) { entry = std::make_unique<page>(); }
        last_page = entry.get();
        last_number = number;
        return *last_page;
    }

    std::unordered_map<uint64_t, std::unique_ptr<page>> pages; // by addr / page_bytes
    page* last_page = nullptr;                                 // the page written last: most writes stay in it
    uint64_t last_number = 0;
};

} // namespace rvk
