// A card's memory: bytes at 64-bit addresses, of which only pages that were written exist; the others read as 0. Knows
// which stretches were written, so that they can be listed and saved. No lock of its own.
#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <unordered_map>
#include <vector>

namespace rvk {

using extents = std::map<uint64_t, uint64_t>; // stretches of addresses: first -> one behind the last

class card_memory {
public:
    // last     address behind which they go on at 0; the end of a page
    // listing  false: keeps no stretches, of which the lines of pictures would be many
    explicit card_memory(uint64_t last, bool listing = true) : mask(last), lists(listing) {}

    void write(uint64_t addr, std::span<const uint8_t> bytes);
    void read(uint64_t addr, std::span<uint8_t> out) const;
    [[nodiscard]] std::vector<uint8_t> read(uint64_t addr, size_t count) const;

    [[nodiscard]] const extents& written() const { return noted; } // neither overlapping nor touching

private:
    using page = std::array<uint8_t, 4096>;
    void note(uint64_t first, uint64_t end);

    uint64_t mask;
    bool lists;
    std::unordered_map<uint64_t, std::unique_ptr<page>> pages; // by address / page size
    extents noted;
};

} // namespace rvk
