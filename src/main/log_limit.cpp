#include "main/log_limit.h"

#include <algorithm>
#include <functional>

namespace rvk {

log_limit::entry* log_limit::entry_of(const log_place& from)
{
    const size_t first = std::hash<const void*>{}(from.function) / alignof(void*) + static_cast<size_t>(from.line);
    for (size_t i = 0; i < entries.size(); ++i) {
        entry& e = entries[(first + i) % entries.size()];
        if (e.from.function == nullptr) { e = {from, 0, 0}; }
        if (e.from.function == from.function && e.from.line == from.line) { return &e; }
    }
    return nullptr;
}

bool log_limit::admits(const log_place& from, time_t second)
{
    entry* const e = entry_of(from);
    if (e == nullptr) { return true; }
    if (e->second != second) { *e = {e->from, second, 0}; }
    if (++e->lines == log_place_lines_max + 1) { ++overfull; }
    return e->lines <= log_place_lines_max;
}

bool log_limit::take_left_out(time_t second, log_place* from, uint32_t* lines)
{
    if (overfull == 0 || looked_up == second) { return false; }
    const auto is_left_out = [second](const entry& e) { return e.lines > log_place_lines_max && e.second != second; };
    entry* const e = std::find_if(entries.begin(), entries.end(), is_left_out);
    if (e == entries.end()) { return looked_up = second, false; }
    *from = e->from;
    *lines = e->lines - log_place_lines_max;
    e->lines = 0;
    --overfull;
    return true;
}

} // namespace rvk
