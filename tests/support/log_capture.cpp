// The log sink of tests; see log_capture.h. Its lock is the innermost of all, as the log's always is.
//
// The store is never destroyed: threads of the code under test may log while the process exits.
#include "support/log_capture.h"
#include "base/mutex.h"
#include "main/log.h"

#include <cstdarg>
#include <cstdlib>
#include <utility>

namespace rvk {

int log_debug = 0;
int log_d = 0;
int log_num = 0;
FILE* log_fp = nullptr;
int log_lastday = 0;
int print_flag = 0;

namespace {

struct log_store {
    mutex lock;
    std::vector<log_entry> entries RVK_GUARDED_BY(lock);
};

log_store& store()
{
    static log_store* const only = new log_store;
    return *only;
}

__attribute__((format(printf, 1, 0))) std::string formatted(const char* format, va_list arguments)
{
    va_list again;
    va_copy(again, arguments);
    const int length = vsnprintf(nullptr, 0, format, arguments);
    std::string text(length > 0 ? static_cast<size_t>(length) : 0, '\0');
    vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    return text;
}

} // namespace

void log_print(const char* module, const char* function, int line, const char* format, ...)
{
    static const bool show = getenv("RVK_TEST_LOG") != nullptr;
    va_list arguments;
    va_start(arguments, format);
    log_entry entry{module, function, line, formatted(format, arguments)};
    va_end(arguments);
    if (show) { fprintf(stderr, "%s:%s:%d %s", module, function, line, entry.text.c_str()); }
    const scoped_lock held(store().lock);
    store().entries.push_back(std::move(entry));
}

std::vector<log_entry> take_log()
{
    const scoped_lock held(store().lock);
    return std::exchange(store().entries, {});
}

size_t logged(std::string_view part)
{
    const scoped_lock held(store().lock);
    size_t count = 0;
    for (const log_entry& entry : store().entries) {
        if (entry.text.find(part) != std::string::npos) { count++; }
    }
    return count;
}

std::string log_text()
{
    const scoped_lock held(store().lock);
    std::string all;
    for (const log_entry& entry : store().entries) { all += entry.text; }
    return all;
}

} // namespace rvk
