// The log sink of tools: the text alone, on standard error. A tool waits for the reader of its output; nothing is lost.
#include "main/log.h"

#include <cerrno>
#include <cstdarg>
#include <unistd.h>

namespace rvk {

void log_print(const char*, const char*, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments); // locks the stream for the whole text
    va_end(arguments);
}

bool console_write(int fd, const char* bytes, size_t count)
{
    while (count != 0) {
        const ssize_t written = TEMP_FAILURE_RETRY(write(fd, bytes, count));
        if (written <= 0) { return false; }
        bytes += written;
        count -= static_cast<size_t>(written);
    }
    return true;
}

} // namespace rvk
