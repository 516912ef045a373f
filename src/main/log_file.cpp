// The log sink of the daemon: two files that alternate by calendar day, and standard output.
//
// One mutex is held for a whole call, so that no thread writes to a stream that a roll-over closes and the file is
// opened once. It is the innermost lock of the process.
#include "main/log.h"

#include "base/mutex.h"

#include <cstdarg>
#include <ctime>
#include <unistd.h>

namespace rvk {

int log_debug = 0;
int log_d = 0;
int log_num = 0;
FILE* log_fp = nullptr;
int log_lastday = 0;
int print_flag = 0;

namespace {

constexpr size_t header_bytes = 1024; // ours: longer headers are cut
mutex log_mtx;

struct moment {
    timespec now;
    tm local;
};

// The local time. The broken-down form is computed once a second: most calls with neither switch set need only the day.
const moment& local_moment() RVK_REQUIRES(log_mtx)
{
    static moment last{{-1, 0}, {}}; // as good as guarded: whoever gets it holds the lock
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != last.now.tv_sec) { localtime_r(&now.tv_sec, &last.local); }
    last.now = now;
    return last;
}

void open_file(const tm& local) RVK_REQUIRES(log_mtx)
{
    char path[64];
    snprintf(path, sizeof path, "/var/log/rvk_log%d.txt", log_num);
    log_fp = fopen(path, "w+e");
    if (log_fp != nullptr) { log_lastday = local.tm_mday; }
}

void format_header(char* out, const moment& at, const char* module, const char* function, int line)
{
    const tm& t = at.local;
    snprintf(out, header_bytes, "[%04d/%02d/%02d %02d:%02d:%02d.%03d pid=%d] [ %10s/%30s/%5d ]:: ", t.tm_year + 1900,
             t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, static_cast<int>(at.now.tv_nsec / 1'000'000),
             static_cast<int>(getpid()), module, function, line);
}

__attribute__((format(printf, 3, 0))) void write_line(FILE* to, const char* header, const char* format,
                                                      va_list arguments)
{
    va_list copy;
    va_copy(copy, arguments);
    flockfile(to); // standard output has other writers: a header and its text stay together
    fputs(header, to);
    vfprintf(to, format, copy);
    funlockfile(to);
    va_end(copy);
}

void roll_over(const tm& local) RVK_REQUIRES(log_mtx)
{
    if (local.tm_mday == log_lastday) { return; }
    fclose(log_fp);
    log_fp = nullptr;
    log_num = 1 - log_num;
}

} // namespace

void log_print(const char* module, const char* function, int line, const char* format, ...)
{
    const scoped_lock hold(log_mtx);
    const moment& at = local_moment();
    if (log_fp == nullptr) { open_file(at.local); }
    const bool to_file = log_fp != nullptr && log_d != 0;
    if (to_file || log_debug != 0) {
        char header[header_bytes];
        format_header(header, at, module, function, line);
        va_list arguments;
        va_start(arguments, format);
        if (to_file) { write_line(log_fp, header, format, arguments); }
        if (log_debug != 0) { write_line(stdout, header, format, arguments); }
        va_end(arguments);
        if (log_debug != 0) { fflush(stdout); }
    }
    if (to_file || log_fp == nullptr) { fflush(log_fp); } // without a file: all open output streams
    if (log_fp != nullptr) { roll_over(at.local); }
}

} // namespace rvk
