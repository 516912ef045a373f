// The log sink of the daemon: two files that alternate by calendar day, and standard output.
//
// A line is formatted before the lock and written in one call under it, so that the lock is held for a few instructions
// and one write: a real-time thread may wait for it. It is the innermost lock of the process.
#include "main/log.h"

#include "base/mutex.h"

#include <algorithm>
#include <cstdarg>
#include <ctime>
#include <fcntl.h>
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
constexpr size_t text_bytes = 6144;   // ours: longer texts are cut
constexpr mode_t file_mode = 0644;
mutex log_mtx;

struct moment {
    timespec now;
    tm local;
};

// The local time. The broken-down form is computed once a second: most calls with neither switch set need only the day.
const moment& local_moment()
{
    static thread_local moment last{{-1, 0}, {}};
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
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, file_mode);
    log_fp = fd < 0 ? nullptr : fdopen(fd, "a+");
    if (log_fp != nullptr) { log_lastday = local.tm_mday; }
}

// Result: bytes.
__attribute__((format(printf, 6, 0))) size_t format_line(char (&out)[header_bytes + text_bytes], const moment& at,
                                                         const char* module, const char* function, int line,
                                                         const char* format, va_list arguments)
{
    const tm& t = at.local;
    const int header = snprintf(
        out, header_bytes, "[%04d/%02d/%02d %02d:%02d:%02d.%03d pid=%d] [ %10s/%30s/%5d ]:: ", t.tm_year + 1900,
        t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, static_cast<int>(at.now.tv_nsec / 1'000'000),
        static_cast<int>(getpid()), module, function, line);
    const size_t used = std::min(static_cast<size_t>(header), header_bytes - 1);
    const int text = vsnprintf(out + used, text_bytes, format, arguments);
    return used + std::min(static_cast<size_t>(std::max(text, 0)), text_bytes - 1);
}

void roll_over(const tm& local) RVK_REQUIRES(log_mtx)
{
    if (local.tm_mday == log_lastday) { return; }
    fclose(log_fp);
    log_fp = nullptr;
    log_num = 1 - log_num;
}

// Result: false when no file can be opened. An error of the write has nobody to be told to.
bool write_to_file(const tm& local, const char* line, size_t bytes)
{
    const scoped_lock hold(log_mtx);
    if (log_fp == nullptr) { open_file(local); }
    if (log_fp == nullptr) { return false; }
    const ssize_t written = bytes == 0 ? 0 : write(fileno(log_fp), line, bytes);
    static_cast<void>(written);
    roll_over(local);
    return true;
}

} // namespace

void log_print(const char* module, const char* function, int line, const char* format, ...)
{
    char text[header_bytes + text_bytes];
    const moment& at = local_moment();
    size_t bytes = 0;
    if (log_d != 0 || log_debug != 0) {
        va_list arguments;
        va_start(arguments, format);
        bytes = format_line(text, at, module, function, line, format, arguments);
        va_end(arguments);
    }
    if (!write_to_file(at.local, text, log_d != 0 ? bytes : 0)) { fflush(nullptr); }
    if (log_debug != 0) { console_write(STDOUT_FILENO, text, bytes); }
}

} // namespace rvk
