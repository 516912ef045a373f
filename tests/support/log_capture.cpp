// The log sink of tests; see the header. Its lock is the innermost of all, as the log's always is.
#include "support/log_capture.h"
#include "base/mutex.h"
#include "main/log.h"

#include <atomic>
#include <cstdarg>
#include <unistd.h>
#include <utility>

namespace rvk {

int log_debug = 0, log_d = 0, log_num = 0, log_lastday = 0, print_flag = 0;
FILE* log_fp = nullptr;

namespace {

mutex lock;
std::atomic<size_t> shown{0};
// Never destroyed: threads of the code under test may log while the process exits.
std::string& all = *new std::string;

} // namespace

void log_print(const char*, const char*, int, const char* format, ...)
{
    char text[1 << 13];
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    const scoped_lock held(lock);
    all += text;
}

void console_write(int, const char*, size_t) {}
void console_print(int fd, const char*, ...) { shown += fd == STDERR_FILENO ? 1 : 0; }

size_t errors_shown() { return shown; }

std::string log_text()
{
    const scoped_lock held(lock);
    return all;
}

std::string take_log()
{
    const scoped_lock held(lock);
    return std::exchange(all, "");
}

size_t logged(std::string_view part)
{
    size_t times = 0;
    const std::string text = log_text();
    for (size_t at = 0; (at = text.find(part, at)) != text.npos; ++at) { ++times; }
    return times;
}

} // namespace rvk
