// Standard output and standard error, written without ever waiting for whoever should read them: what there is no room
// for is lost, counted, and said with the next text that gets through. Both log sinks have this.
//
// A pipe or a terminal is opened again for it, as ours alone: a flag set on the inherited one would be everybody's.
#include "main/last_words.h"
#include "main/log.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdint>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rvk {
namespace {

struct stream {
    mutex lock;
    std::atomic<bool> owner_is_stuck{false};
    int own RVK_GUARDED_BY(lock) = -1;
    uint64_t lost RVK_GUARDED_BY(lock) = 0;
};
stream streams[2]; // standard output, standard error

int opened_again(int fd)
{
    struct stat status {};
    if (fstat(fd, &status) != 0 || !(S_ISFIFO(status.st_mode) || S_ISCHR(status.st_mode))) { return fd; }
    char path[32];
    snprintf(path, sizeof path, "/proc/self/fd/%d", fd);
    const int own = open(path, O_WRONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    return own >= 0 ? own : fd;
}

// Result: false when there is no room. A file that fails, a reader that is gone: nobody is waited for, nothing is lost.
bool write_now(int fd, const char* bytes, size_t count)
{
    ssize_t n = send(fd, bytes, count, MSG_DONTWAIT | MSG_NOSIGNAL);
    if (n < 0 && errno == ENOTSOCK) {
        pollfd room{fd, POLLOUT, 0}; // where it could not be opened again
        if (poll(&room, 1, 0) == 0) { return false; }
        n = write(fd, bytes, std::min<size_t>(count, PIPE_BUF)); // room for as much was promised
    }
    if (n < 0) { return errno != EAGAIN && errno != EWOULDBLOCK; }
    return static_cast<size_t>(n) == count || write_now(fd, bytes + n, count - static_cast<size_t>(n));
}

} // namespace

bool console_write(int fd, const char* bytes, size_t count)
{
    stream& to = streams[fd - STDOUT_FILENO];
    if (!lock_unless_stuck(to.lock, to.owner_is_stuck)) { return write_now(fd, bytes, count); }
    if (to.own < 0) { to.own = opened_again(fd); }
    if (to.lost != 0) {
        char line[64];
        const int length =
            snprintf(line, sizeof line, "(%llu texts lost: nobody read)\n", static_cast<unsigned long long>(to.lost));
        if (write_now(to.own, line, static_cast<size_t>(length))) { to.lost = 0; }
    }
    const bool written = to.lost == 0 && write_now(to.own, bytes, count);
    if (!written) { ++to.lost; }
    to.lock.unlock();
    return written;
}

bool console_print(int fd, const char* format, ...)
{
    char text[1024];
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    return console_write(fd, text, std::min(static_cast<size_t>(std::max(length, 0)), sizeof text - 1));
}

} // namespace rvk
