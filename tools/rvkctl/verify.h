// What came of reading back what was written: the same words and facts for registers and for pictures.
#pragma once

#include "rvkctl/outcome.h"

#include <cstdint>
#include <string>

namespace rvk::ctl {

// The first byte that is another one.
struct difference {
    uint64_t offset; // from the first byte written
    uint8_t wanted, got;
};

// All of the bytes that could be compared are the same.
void note_same(uint64_t compared, outcome& run);

// Throws the failure of a difference.
// what   "… differs from …"
// place  where the byte is, in words that its reader knows it by
[[noreturn]] void refuse_difference(const difference& first, const std::string& what, const std::string& place,
                                    outcome& run);

// Makes a failure that came while reading back tell that the write itself was done. Its kind stays.
void mark_not_read_back(failure& failed, outcome& run);

} // namespace rvk::ctl
