// One line of stories.txt, and playing it.
#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <string>
#include <vector>

namespace rvk {

using words = std::vector<std::string>;

struct story {
    std::string kind;                           // of what is asked
    uint32_t n = 0;                             // its bytes, or the command's code
    std::map<std::string, uint32_t> given;      // what is said with that, and what the pool and the queue meet
    std::deque<std::string> before, held, then; // before the frame goes out, while its sender is held, after that

    bool is(const char* what) const { return kind == what; }
    uint32_t number(const char* name, size_t otherwise) const
    {
        return given.contains(name) ? given.at(name) : static_cast<uint32_t>(otherwise);
    }
};

// Result: frames, how it ends (or what was not understood), and each counter that moved, in the order of their names.
[[nodiscard]] words tell(const story& s);

} // namespace rvk
