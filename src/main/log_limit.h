// What the log's file takes, so that nobody fills the disk with lines: of one place's lines the first 200 a second, and
// 64 MiB. Computes only; its owner serialises the calls.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <ctime>

namespace rvk {

inline constexpr uint32_t log_place_lines_max = 200;        // ours: of one place in a second
inline constexpr uint64_t log_file_bytes_max = 64ull << 20; // ours

// Where a line comes from. Two are the same if the line and the address of the function's name are.
struct log_place {
    const char* module;
    const char* function;
    int line;
};

class log_limit {
public:
    // Result: whether a line of this place may be written in this second.
    [[nodiscard]] bool admits(const log_place& from, time_t second);

    // Gives the places of which lines were left out in an earlier second, one with each call, and how many they were.
    // Result: false when there are none left.
    [[nodiscard]] bool take_left_out(time_t second, log_place* from, uint32_t* lines);

private:
    struct entry {
        log_place from;
        time_t second;
        uint32_t lines; // in that second
    };
    entry* entry_of(const log_place& from);

    std::array<entry, 1024> entries{}; // more than the process has places; what finds none free is admitted
    uint32_t overfull = 0;             // places of which lines were left out and not told
    time_t looked_up = -1;             // the second in which none was found that had to be told
};

} // namespace rvk
