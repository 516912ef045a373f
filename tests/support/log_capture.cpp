// The log sink of tests; see the header. Its lock is the innermost of all, as the log's always is.
#include "support/log_capture.h"
#include "base/mutex.h"
#include "main/log.h"

#include <algorithm>
#include <atomic>
#include <cstdarg>
#include <numeric>
#include <unistd.h>
#include <vector>

namespace rvk {

int log_debug = 0, log_d = 0, log_num = 0, log_lastday = 0, print_flag = 0;
FILE* log_fp = nullptr;

namespace {

mutex lock;
std::atomic<size_t> shown{0};
// Never destroyed: threads of the code under test may log while the process exits.
std::vector<std::string>& texts = *new std::vector<std::string>;

} // namespace

void log_print(const char*, const char*, int, const char* format, ...)
{
    char text[1 << 13];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const scoped_lock held(lock);
    texts.emplace_back(text);
}

void console_write(int, const char*, size_t) {}
void console_print(int fd, const char*, ...) { shown += fd == STDERR_FILENO ? 1 : 0; }

size_t errors_shown() { return shown; }

std::string log_text()
{
    const scoped_lock held(lock);
    return std::accumulate(texts.begin(), texts.end(), std::string());
}

std::string take_log()
{
    std::string all = log_text();
    const scoped_lock held(lock);
    texts.clear();
    return all;
}

size_t logged(std::string_view part)
{
    const scoped_lock held(lock);
    return static_cast<size_t>(
        std::ranges::count_if(texts, [part](const std::string& text) { return text.find(part) != std::string::npos; }));
}

} // namespace rvk
