// One line of stories.txt, what became of it when it was played, and how that is judged.
#pragma once

#include "sim/world.h"

#include <algorithm>
#include <deque>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace rvk {

inline constexpr uint32_t client = 0x010A7F05, companion = 0x010A3C00, usual_addr = 0x1000;
inline constexpr uint32_t asked_word1 = 0xC0FFEE; // replies bring it back
inline constexpr uint8_t untouched = 0xEE;

struct story {
    std::vector<std::string> asked;             // the first column's words
    std::deque<std::string> before, held, then; // before the frame goes out, while its sender is held, after that
    std::map<std::string, unsigned> set, times; // what the pool and a firmware transfer meet, and how often

    bool has(const char* word) const { return std::ranges::count(asked, word) != 0; }
    bool is(const char* kind) const { return asked[0] == kind; }
    bool is_request() const { return !is("command") && !is("update"); }
    size_t size() const { return is_request() ? std::stoul(asked[1]) : number("len", 4); }
    unsigned setting(const char* what) const { return set.contains(what) ? set.at(what) : 0; }
    uint32_t number(const char* option, size_t otherwise) const
    {
        const auto at = static_cast<size_t>(std::ranges::find(asked, option) - asked.begin());
        return static_cast<uint32_t>(at == asked.size() ? static_cast<long long>(otherwise)
                                                        : std::stoll(asked.at(at + 1), nullptr, 0));
    }
};

struct ending {
    size_t frames;
    std::string how; // or what was not understood
    std::set<std::string> counters;
};

[[nodiscard]] ending tell(const story& s);

using words = std::vector<std::string>;

[[nodiscard]] std::map<std::string, uint64_t> figures_now(const world& w);
[[nodiscard]] std::string joined(words all); // what is there several times stands once, with how often

// How many bytes came where they were to go, and whether they are those of the address; what is behind stays untouched.
[[nodiscard]] std::string bytes_said(std::span<const uint8_t> all, size_t n, uint32_t addr);

// One message in the words of the stories, and everything about it that the requester relies on. carried: what the
// command had
[[nodiscard]] std::string heard(const story& s, const sent_message& m, const bytes_t& carried);

// What is wrong with the frames: every one is a good one; one to the same address is the same again; a piece follows
// the piece before it.
[[nodiscard]] words judged(const story& s, const std::vector<bytes_t>& frames);

} // namespace rvk
