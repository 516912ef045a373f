// The log sink of the daemon: two files that alternate by calendar day, and standard output.
//
// A line is formatted before the lock and written in one call under it, so that the lock is held for a few instructions
// and one write: a real-time thread may wait for it. Once a second also for a look at the file's size and a search of
// 1,024 places, with a line for each of which lines were left out. It is the innermost lock of the process.
#include "base/mutex.h"
#include "main/last_words.h"
#include "main/log.h"
#include "main/log_limit.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdarg>
#include <ctime>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

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
constexpr mode_t file_mode = 0640;
constexpr time_t late_s = 2; // ours: a line that waits for the lock is no older

struct moment {
    timespec now;
    tm local;
};

mutex log_mtx;
std::atomic<int> file_fd{-1}; // the open file's, for the last words
log_limit limit RVK_GUARDED_BY(log_mtx);
moment newest RVK_GUARDED_BY(log_mtx);       // of all lines
uint64_t file_bytes RVK_GUARDED_BY(log_mtx); // the open file's, looked up once a second: it may be emptied
time_t looked_up_second RVK_GUARDED_BY(log_mtx);
bool full RVK_GUARDED_BY(log_mtx);
std::atomic<long> seconds_east{0}; // of the local time from UTC

// As gmtime_r, without its lock, which the thread that crashed may hold.
tm fields_of(time_t at)
{
    using namespace std::chrono;
    const sys_seconds when{seconds{at}};
    const year_month_day date{floor<days>(when)};
    const hh_mm_ss time{when - floor<days>(when)};
    tm out{};
    out.tm_year = static_cast<int>(date.year()) - 1900;
    out.tm_mon = static_cast<int>(static_cast<unsigned>(date.month())) - 1;
    out.tm_mday = static_cast<int>(static_cast<unsigned>(date.day()));
    out.tm_hour = static_cast<int>(time.hours().count());
    out.tm_min = static_cast<int>(time.minutes().count());
    out.tm_sec = static_cast<int>(time.seconds().count());
    return out;
}

// The local time. The broken-down form is computed once a second: most calls with neither switch set need only the day.
const moment& local_moment()
{
    static thread_local moment last{{-1, 0}, {}};
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != last.now.tv_sec) {
        if (!log_is_last_words) {
            tm local{};
            localtime_r(&now.tv_sec, &local);
            seconds_east = local.tm_gmtoff;
            last.local = local;
        } else {
            last.local = fields_of(now.tv_sec + seconds_east);
        }
    }
    last.now = now;
    return last;
}

void open_file(const tm& local) RVK_REQUIRES(log_mtx)
{
    char path[64];
    snprintf(path, sizeof path, "/var/log/rvk_log%d.txt", log_num);
    const int fd = open(path, O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, file_mode);
    file_fd = fd;
    if (fd >= 0) { static_cast<void>(fchmod(fd, file_mode)); } // one that was there, whoever made it
    log_fp = fd < 0 ? nullptr : fdopen(fd, "a+");
    if (log_fp == nullptr) {
        file_fd = -1;
        if (fd >= 0) { close(fd); }
        return;
    }
    log_lastday = local.tm_mday;
    file_bytes = 0;
}

// Result: bytes.
size_t format_header(char (&out)[header_bytes + text_bytes], const moment& at, const log_place& from)
{
    const tm& t = at.local;
    const int header = snprintf(
        out, header_bytes, "[%04d/%02d/%02d %02d:%02d:%02d.%03d pid=%d] [ %10s/%30s/%5d ]:: ", t.tm_year + 1900,
        t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, static_cast<int>(at.now.tv_nsec / 1'000'000),
        static_cast<int>(getpid()), from.module, from.function, from.line);
    return std::min(static_cast<size_t>(header), header_bytes - 1);
}

// Result: bytes.
__attribute__((format(printf, 2, 0))) size_t format_text(char* out, const char* format, va_list arguments)
{
    const int text = vsnprintf(out, text_bytes, format, arguments);
    return std::min(static_cast<size_t>(std::max(text, 0)), text_bytes - 1);
}

// An error of the write has nobody to be told to.
void write_text(std::string_view text) RVK_REQUIRES(log_mtx)
{
    const ssize_t written = write(fileno(log_fp), text.data(), text.size());
    if (written > 0) { file_bytes += static_cast<uint64_t>(written); }
}

// A line of the log's own about a place.
__attribute__((format(printf, 3, 4))) void write_note(const moment& at, const log_place& from, const char* format, ...)
    RVK_REQUIRES(log_mtx)
{
    char line[header_bytes + text_bytes];
    size_t bytes = format_header(line, at, from);
    va_list arguments;
    va_start(arguments, format);
    bytes += format_text(line + bytes, format, arguments);
    va_end(arguments);
    write_text({line, bytes});
}

// A file that is full says so once.
bool has_room(const moment& at) RVK_REQUIRES(log_mtx)
{
    struct stat status = {};
    if (std::exchange(looked_up_second, at.now.tv_sec) != at.now.tv_sec && fstat(fileno(log_fp), &status) == 0) {
        file_bytes = static_cast<uint64_t>(status.st_size);
    }
    const bool was_full = std::exchange(full, file_bytes > log_file_bytes_max);
    if (full && !was_full) { write_note(at, {LOG_HERE}, "this file is full: nothing more is written to it\n"); }
    return !full;
}

// A line, and before it how many were left out earlier, within the limits; a crash's lines have none.
void write_limited(const moment& at, const log_place& from, std::string_view line) RVK_REQUIRES(log_mtx)
{
    const bool last_words = log_is_last_words;
    if (!last_words && !has_room(at)) { return; }
    const time_t second = last_words ? 0 : at.now.tv_sec; // 0, a second of no line: all that was left out is told
    log_place place{};
    uint32_t left_out = 0;
    while (limit.take_left_out(second, &place, &left_out)) { write_note(at, place, "(%u more)\n", left_out); }
    if (last_words || limit.admits(from, second)) { write_text(line); }
}

// What day it is: a thread that waited for the lock over midnight brings one that is over.
const tm& day_of(const moment& at) RVK_REQUIRES(log_mtx)
{
    const time_t behind = newest.now.tv_sec - at.now.tv_sec;
    if (behind <= 0 || behind > late_s) { newest = at; }
    return newest.local;
}

void roll_over(const tm& local) RVK_REQUIRES(log_mtx)
{
    if (local.tm_mday == log_lastday) { return; }
    file_fd = -1;
    fclose(log_fp);
    log_fp = nullptr;
    log_num = 1 - log_num;
}

// Result: false when no file can be opened.
bool write_to_file(const moment& at, const log_place& from, std::string_view line)
{
    static std::atomic<bool> owner_is_stuck{false};
    if (!lock_unless_stuck(log_mtx, owner_is_stuck)) { return write(file_fd, line.data(), line.size()) >= 0; }
    const tm& day = day_of(at);
    if (log_fp == nullptr) { open_file(day); }
    const bool open = log_fp != nullptr;
    if (open && !line.empty()) { write_limited(at, from, line); }
    if (open) { roll_over(day); }
    log_mtx.unlock();
    return open;
}

} // namespace

void log_print(const char* module, const char* function, int line, const char* format, ...)
{
    char text[header_bytes + text_bytes];
    const moment& at = local_moment();
    const log_place from{module, function, line};
    size_t bytes = 0;
    if (log_d != 0 || log_debug != 0) {
        bytes = format_header(text, at, from);
        va_list arguments;
        va_start(arguments, format);
        bytes += format_text(text + bytes, format, arguments);
        va_end(arguments);
    }
    const bool open = write_to_file(at, from, {text, log_d != 0 ? bytes : 0});
    if (!open && !log_is_last_words) { fflush(nullptr); } // takes locks
    if (log_debug != 0) { console_write(STDOUT_FILENO, text, bytes); }
}

} // namespace rvk
