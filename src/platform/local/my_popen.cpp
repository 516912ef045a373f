// A command's output as a stream that an ordinary fclose ends: the stream owns the pipe and the child, and closing it
// waits for the child.
#include "platform/local/shell.h"

#include "base/fd.h"
#include "platform/platform.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <memory>
#include <new>

namespace {

struct command_stream {
    rvk::unique_fd output;
    pid_t child = -1; // none was started
};

ssize_t read_output(void* cookie, char* buffer, size_t size)
{
    const int fd = static_cast<command_stream*>(cookie)->output.get();
    ssize_t got = 0;
    do {
        got = ::read(fd, buffer, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

// The pipe goes first: a command that still writes then ends of SIGPIPE instead of keeping us.
int end_command(void* cookie)
{
    const std::unique_ptr<command_stream> stream{static_cast<command_stream*>(cookie)};
    stream->output.reset();
    return stream->child < 0 || rvk::local::wait_for_shell(stream->child) >= 0 ? 0 : -1;
}

// Both ends above the standard descriptors, which the child takes over as they are.
bool make_pipe(rvk::unique_fd& reader, rvk::unique_fd& writer)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) { return false; }
    const rvk::unique_fd first_reader{ends[0]}, first_writer{ends[1]};
    reader.reset(fcntl(first_reader.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    writer.reset(fcntl(first_writer.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return reader && writer;
}

} // namespace

FILE* my_popen(const char* line, const char* mode)
{
    if (line == nullptr || mode == nullptr || mode[0] != 'r') {
        errno = EINVAL;
        return nullptr;
    }
    std::unique_ptr<command_stream> stream{new (std::nothrow) command_stream};
    rvk::unique_fd writer;
    if (!stream || !make_pipe(stream->output, writer)) { return nullptr; }
    FILE* file = fopencookie(stream.get(), "r", {read_output, nullptr, nullptr, end_command});
    if (file == nullptr) { return nullptr; }
    stream->child = rvk::local::start_shell(line, writer.get());
    command_stream* owned = stream.release(); // the stream's from here on
    if (owned->child >= 0) { return file; }
    const int error = errno;
    fclose(file);
    errno = error;
    return nullptr;
}
