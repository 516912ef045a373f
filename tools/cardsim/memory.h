// A card's memory: 4 GiB of bytes, of which only pages that were written exist.
// Bytes never written read as 0. Knows which ranges were written, so that they can be listed and saved. No lock of its
// own.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

namespace rvk {

// A written stretch of addresses; 64 bits, since one may end at 4 GiB.
struct extent {
    uint64_t first = 0;
    uint64_t end = 0; // one behind the last byte
    bool operator==(const extent&) const = default;
};

class card_memory {
public:
    // Addresses run on from 0xFFFFFFFF to 0.
    void write(uint32_t addr, std::span<const uint8_t> bytes);
    void read(uint32_t addr, std::span<uint8_t> out) const;

    [[nodiscard]] std::vector<extent> written() const; // ascending; touching stretches are one

private:
    static constexpr size_t page_bytes = 4096;
    using page = std::array<uint8_t, page_bytes>;

    page& page_for_writing(uint32_t number);
    void note_written(uint64_t first, uint64_t end);

    std::unordered_map<uint32_t, std::unique_ptr<page>> pages; // by addr / page_bytes
    std::map<uint64_t, uint64_t> extents;                      // first -> end; neither overlapping nor touching
    page* last_page = nullptr;                                 // the page written last: most writes stay in it
    uint32_t last_number = 0;
};

} // namespace rvk
