// A card's register memory: 4 GiB of bytes. Knows which ranges were written, so that they can be listed and saved. No
// lock of its own.
#pragma once

#include "cardsim/sparse_pages.h"

#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace rvk {

// A written stretch of addresses; 64 bits, since one may end at 4 GiB.
struct extent {
    uint64_t first = 0;
    uint64_t end = 0; // one behind the last byte
    bool operator==(const extent&) const = default;
};

// Stretches that were written, ascending; neither overlapping nor touching.
class extent_list {
public:
    void note(uint64_t first, uint64_t end);
    [[nodiscard]] std::vector<extent> list() const;

private:
    std::map<uint64_t, uint64_t> extents; // first -> end
};

class card_memory {
public:
    // Addresses run on from 0xFFFFFFFF to 0. Bytes never written read as 0.
    void write(uint32_t addr, std::span<const uint8_t> bytes);
    void read(uint32_t addr, std::span<uint8_t> out) const;

    [[nodiscard]] std::vector<extent> written() const { return extents.list(); }

private:
    sparse_pages<4096> pages;
    extent_list extents;
};

} // namespace rvk
