// The log sink of the daemon: two files that alternate by calendar day, and the console. A line is formatted before the
// lock and written in one call under it, so that the lock is held for a few instructions and one write: a real-time
// thread may wait for it. Once a second it is held longer: the file's size is looked up, and 1,024 places are searched
// for those of which lines were left out, with a line for each. It is the innermost lock of the process.
#include "base/fd.h"
#include "base/mutex.h"
#include "main/log.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <climits>
#include <cstdarg>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace rvk {
namespace {

constexpr size_t header_bytes = 1024, text_bytes = 6144; // ours: longer ones are cut
constexpr uint32_t place_lines_max = 200;                // ours: lines of one place in a second
constexpr uint64_t file_bytes_max = 64ull << 20;         // ours: nobody fills the disk with lines
constexpr mode_t file_mode = 0640;
constexpr time_t day_s = 86'400;
constexpr time_t late_s = 2;       // ours: a line that waits for the lock is no older
constexpr int owner_wait_ms = 100; // ours

struct moment {
    timespec now;
    std::chrono::year_month_day date; // local
    int second;                       // of the day
};

// Where a line comes from. Two are the same if the line and the address of the function's name are.
struct place {
    const char* module;
    const char* function;
    int line;
};

struct place_lines {
    place from;
    time_t second;
    uint32_t lines; // in that second
};

mutex log_mtx;
std::atomic<int> file_fd{-1};                // the open file's, for a thread that gives the lock up
moment newest RVK_GUARDED_BY(log_mtx);       // of all lines
uint64_t file_bytes RVK_GUARDED_BY(log_mtx); // the open file's, looked up once a second: it may be emptied
time_t looked_up_second RVK_GUARDED_BY(log_mtx);
bool full RVK_GUARDED_BY(log_mtx);
std::array<place_lines, 1024> places RVK_GUARDED_BY(log_mtx); // more than there are; a line without is unlimited
uint32_t overfull RVK_GUARDED_BY(log_mtx);                    // places of which lines were left out and not told
time_t searched_second RVK_GUARDED_BY(log_mtx) = -1;          // last search that left this second's places only
std::atomic<long> seconds_east{0};                            // of the local time from UTC

// Result: false: go on without the lock. The thread that logs the process's end waits at most 100 ms, and only once.
[[nodiscard]] bool lock_unless_stuck(mutex& m, std::atomic<bool>& owner_is_stuck) RVK_TRY_ACQUIRE(true, m)
{
    if (!logs_process_end) { return m.lock(), true; }
    if (!owner_is_stuck && m.lock_within(owner_wait_ms)) { return true; }
    owner_is_stuck = true;
    return false;
}

// The local time, broken down once a second: most calls with neither switch set need only the day. localtime_r takes a
// lock, which a thread that crashed may hold; the process's end goes by the last offset from UTC instead.
const moment& local_moment()
{
    static thread_local moment last{{-1, 0}, {}, 0};
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    if (now.tv_sec != last.now.tv_sec) {
        tm local{};
        if (!logs_process_end) { seconds_east = localtime_r(&now.tv_sec, &local)->tm_gmtoff; }
        const time_t at = now.tv_sec + (logs_process_end ? seconds_east.load() : local.tm_gmtoff);
        last.date = std::chrono::sys_days{std::chrono::days{at / day_s}};
        last.second = static_cast<int>(at % day_s);
    }
    last.now = now;
    return last;
}

void open_file(int day) RVK_REQUIRES(log_mtx)
{
    char path[64];
    snprintf(path, sizeof path, "/var/log/rvk_log%d.txt", log_num);
    unique_fd fd{open(path, O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, file_mode)};
    if (fd) { static_cast<void>(fchmod(fd.get(), file_mode)); } // one that was there may have another
    log_fp = fd ? fdopen(fd.get(), "a+") : nullptr;
    if (log_fp == nullptr) { return; }
    file_fd = fd.release();
    log_lastday = day;
    file_bytes = 0;
}

// Formats a line, header and text. Result: bytes.
__attribute__((format(printf, 4, 0))) size_t format_line(char (&out)[header_bytes + text_bytes], const moment& at,
                                                         const place& from, const char* format, va_list arguments)
{
    const int header =
        snprintf(out, header_bytes,
                 "[%04d/%02u/%02u %02d:%02d:%02d.%03d pid=%d] [ %10s/%30s/%5d ]:: ", static_cast<int>(at.date.year()),
                 static_cast<unsigned>(at.date.month()), static_cast<unsigned>(at.date.day()), at.second / 3600,
                 at.second / 60 % 60, at.second % 60, static_cast<int>(at.now.tv_nsec / 1'000'000),
                 static_cast<int>(getpid()), from.module, from.function, from.line);
    const size_t text_at = std::min(static_cast<size_t>(header), header_bytes - 1);
    const int text = vsnprintf(out + text_at, text_bytes, format, arguments);
    return text_at + std::min(static_cast<size_t>(std::max(text, 0)), text_bytes - 1);
}

void write_text(const char* text, size_t bytes) RVK_REQUIRES(log_mtx)
{
    const ssize_t written = write(fileno(log_fp), text, bytes);
    if (written > 0) { file_bytes += static_cast<uint64_t>(written); } // nobody can be told of an error
}

// A line of the log's own about a place.
__attribute__((format(printf, 3, 4))) void write_note(const moment& at, const place& from, const char* format, ...)
    RVK_REQUIRES(log_mtx)
{
    char line[header_bytes + text_bytes];
    va_list arguments;
    va_start(arguments, format);
    write_text(line, format_line(line, at, from, format, arguments));
    va_end(arguments);
}

// Result: false when the file is full; it says so once.
bool takes_more(const moment& at) RVK_REQUIRES(log_mtx)
{
    struct stat status = {};
    if (std::exchange(looked_up_second, at.now.tv_sec) != at.now.tv_sec && fstat(fileno(log_fp), &status) == 0) {
        file_bytes = static_cast<uint64_t>(status.st_size);
    }
    const bool was_full = std::exchange(full, file_bytes > file_bytes_max);
    if (full && !was_full) { write_note(at, {LOG_HERE}, "this file is full: nothing more is written to it\n"); }
    return !full;
}

// Of which places lines were left out in an earlier second, and how many.
void tell_left_out(const moment& at, time_t second) RVK_REQUIRES(log_mtx)
{
    if (overfull == 0 || searched_second == second) { return; }
    for (place_lines& of : places) {
        if (of.lines <= place_lines_max || of.second == second) { continue; }
        write_note(at, of.from, "(%u more)\n", of.lines - place_lines_max);
        of.lines = 0;
        --overfull;
    }
    if (overfull != 0) { searched_second = second; }
}

// Result: whether a line of this place may be written in this second.
bool admits(const place& from, time_t second) RVK_REQUIRES(log_mtx)
{
    const size_t first = reinterpret_cast<uintptr_t>(from.function) / alignof(void*) + static_cast<size_t>(from.line);
    for (size_t i = 0; i < places.size(); ++i) {
        place_lines& of = places[(first + i) % places.size()];
        if (of.from.function == nullptr) { of = {from, second, 0}; }
        if (of.from.function != from.function || of.from.line != from.line) { continue; }
        if (of.second != second) { of = {from, second, 0}; }
        if (++of.lines == place_lines_max + 1) { ++overfull; }
        return of.lines <= place_lines_max;
    }
    return true;
}

// A line, and before it how many were left out earlier, within the limits; the process's end has none.
void write_limited(const moment& at, const place& from, const char* line, size_t bytes) RVK_REQUIRES(log_mtx)
{
    if (!logs_process_end && !takes_more(at)) { return; }
    const time_t second = logs_process_end ? 0 : at.now.tv_sec; // no line has 0: all that was left out is told
    tell_left_out(at, second);
    if (logs_process_end || admits(from, second)) { write_text(line, bytes); }
}

// The day of the month, of the newest line: a thread that waited for the lock over midnight has an older time.
int day_of(const moment& at) RVK_REQUIRES(log_mtx)
{
    const time_t behind = newest.now.tv_sec - at.now.tv_sec;
    if (behind <= 0 || behind > late_s) { newest = at; }
    return static_cast<int>(static_cast<unsigned>(newest.date.day()));
}

// Result: false when no file can be opened, or written without the lock.
bool write_to_file(const moment& at, const place& from, const char* line, size_t bytes)
{
    static std::atomic<bool> owner_is_stuck{false};
    if (!lock_unless_stuck(log_mtx, owner_is_stuck)) { return write(file_fd, line, bytes) >= 0; }
    const int day = day_of(at);
    if (log_fp == nullptr) { open_file(day); }
    const bool open = log_fp != nullptr;
    if (open && bytes != 0) { write_limited(at, from, line, bytes); }
    if (open && day != log_lastday) { // the next line goes to the other file
        file_fd = -1;
        fclose(log_fp);
        log_fp = nullptr;
        log_num = 1 - log_num;
    }
    log_mtx.unlock();
    return open;
}

// Standard output or standard error. A pipe or terminal is opened again, since O_NONBLOCK on the inherited descriptor
// would hold for every process that shares it.
struct stream {
    mutex lock;
    std::atomic<bool> owner_is_stuck{false};
    int own RVK_GUARDED_BY(lock) = -1;
    uint64_t lost RVK_GUARDED_BY(lock) = 0; // texts
};
stream streams[2];

int opened_again(int fd)
{
    struct stat status {};
    if (fstat(fd, &status) != 0 || !(S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))) { return fd; }
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    const int own = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    return own >= 0 ? own : fd;
}

// Result: false when its reader is behind; not when a file fails or a reader is gone.
bool write_now(int fd, const char* bytes, size_t count)
{
    ssize_t n = send(fd, bytes, count, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) {
        pollfd writable{fd, POLLOUT, 0}; // where it could not be opened again
        if (poll(&writable, 1, 0) == 0) { return false; }
        n = write(fd, bytes, std::min<size_t>(count, PIPE_BUF)); // as much as poll guarantees
    }
    if (n < 0) { return errno != EAGAIN && errno != EWOULDBLOCK; }
    return static_cast<size_t>(n) == count || write_now(fd, bytes + n, count - static_cast<size_t>(n));
}

} // namespace

void log_print(const char* module, const char* function, int line, const char* format, ...)
{
    char text[header_bytes + text_bytes];
    const moment& at = local_moment();
    const place from{module, function, line};
    size_t bytes = 0;
    if (log_d != 0 || log_debug != 0) {
        va_list arguments;
        va_start(arguments, format);
        bytes = format_line(text, at, from, format, arguments);
        va_end(arguments);
    }
    const bool open = write_to_file(at, from, text, log_d != 0 ? bytes : 0);
    if (!open && !logs_process_end) { fflush(nullptr); } // takes locks
    if (log_debug != 0) { console_write(STDOUT_FILENO, text, bytes); }
}

bool console_write(int fd, const char* bytes, size_t count)
{
    stream& to = streams[fd - STDOUT_FILENO];
    if (!lock_unless_stuck(to.lock, to.owner_is_stuck)) { return write_now(fd, bytes, count); }
    if (to.own < 0) { to.own = opened_again(fd); }
    if (to.lost != 0) {
        char line[64];
        const int length = snprintf(line, sizeof line, "(%" PRIu64 " texts lost: nobody read)\n", to.lost);
        if (write_now(to.own, line, static_cast<size_t>(length))) { to.lost = 0; }
    }
    const bool written = to.lost == 0 && write_now(to.own, bytes, count);
    if (!written) { ++to.lost; }
    to.lock.unlock();
    return written;
}

} // namespace rvk
