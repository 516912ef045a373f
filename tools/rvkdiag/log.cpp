#include "rvkdiag/log.h"

#include "base/mutex.h"
#include "main/log.h"

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <vector>

namespace rvk {

namespace {

struct place {
    const char* function;
    int line;
    uint64_t times;
    std::string last;
};

bool shown = false;
mutex places_mtx;
std::vector<place>& places() RVK_REQUIRES(places_mtx)
{
    static auto* const kept = new std::vector<place>; // a link's threads may log while the process exits
    return *kept;
}

void keep(const char* function, int line, std::string text)
{
    const size_t begin = text.find_first_not_of(" \n"), end = text.find_last_not_of(" \n");
    if (begin == std::string::npos) { return; }
    text = text.substr(begin, end - begin + 1);
    const scoped_lock hold(places_mtx);
    auto& all = places();
    auto known =
        std::find_if(all.begin(), all.end(), [&](const place& p) { return p.function == function && p.line == line; });
    if (known == all.end()) { known = all.insert(all.end(), {function, line, 0, {}}); }
    ++known->times;
    known->last = std::move(text);
    std::rotate(known, known + 1, all.end()); // the last one to speak is last
}

} // namespace

void log_print(const char*, const char* function, int line, const char* format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    if (shown) {
        fputs(text, stderr);
    } else {
        keep(function, line, text);
    }
}

bool console_write(int fd, const char* bytes, size_t count)
{
    FILE* const stream = fd == 1 ? stdout : stderr;
    return fwrite(bytes, 1, count, stream) == count && fflush(stream) == 0;
}

namespace diag {

void show_log() { shown = true; }

std::string said()
{
    const scoped_lock hold(places_mtx);
    const auto& all = places();
    const auto most =
        std::max_element(all.rbegin(), all.rend(), [](const place& a, const place& b) { return a.times < b.times; });
    if (most == all.rend()) { return {}; }
    return ": " + most->last + (most->times > 1 ? ", " + std::to_string(most->times) + " times" : "");
}

} // namespace diag
} // namespace rvk
