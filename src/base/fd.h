// File descriptors: their ownership, and whole reads and writes of regular files.
#pragma once

#include <cstdint>
#include <span>
#include <sys/types.h>
#include <unistd.h>
#include <utility>

namespace rvk {

// Closes its descriptor at the end of its life; -1 is none.
class unique_fd {
public:
    unique_fd() = default;
    explicit unique_fd(int fd) : owned(fd) {}
    unique_fd(unique_fd&& other) noexcept : owned(other.release()) {}
    unique_fd& operator=(unique_fd&& other) noexcept
    {
        reset(other.release());
        return *this;
    }
    ~unique_fd() { reset(); }

    explicit operator bool() const { return owned >= 0; }
    int get() const { return owned; }
    int release() { return std::exchange(owned, -1); }
    void reset(int fd = -1)
    {
        if (owned >= 0) { ::close(owned); }
        owned = fd;
    }

private:
    int owned = -1;
};

// Puts /dev/null in the place of standard descriptors that are closed, so that no file or socket gets their numbers;
// whatever else was inherited is kept from the commands that this process runs. To be called before anything is opened.
// access  O_RDWR: what is printed is lost in silence; O_RDONLY: it fails
void prepare_descriptors(int access);

// Opens a file without ever blocking; it must be a regular one.
// flags   as open(): the access mode, O_CREAT; a file that is created gets `mode` less the umask
// Result  none (errno tells why; EINVAL for a FIFO, device or folder)
[[nodiscard]] unique_fd open_regular(const char* path, int flags, mode_t mode = 0600);

// Opens what is to be written where others name it, and makes it with `mode` where it is missing (0: does not make it).
// One that is there is opened without O_CREAT, which the system refuses for others' files in /tmp.
// Result  none (errno tells why; ELOOP for a symbolic link that root did not make)
[[nodiscard]] unique_fd open_output(const char* path, mode_t mode);

// Why open_regular or open_output gave none, by errno: to be asked before anything else sets it.
[[nodiscard]] const char* open_failure();

// Waits until a descriptor can be read, in milliseconds. Result: false when the time ran out or a signal came (EINTR).
[[nodiscard]] bool wait_readable(int fd, uint64_t at_most_ms);

// Size of an open file in bytes, -1 when it cannot be had.
[[nodiscard]] off_t size_of(const unique_fd& file);

// Lets others run meanwhile (base/pause.h), as write_full does. Result: bytes read from the file's position on; fewer
// than asked for only at its end or on an error.
[[nodiscard]] size_t read_full(const unique_fd& file, std::span<uint8_t> into);

// Writes at an offset. Result: false (errno tells why) when not all of it could be written.
[[nodiscard]] bool write_full(const unique_fd& file, std::span<const uint8_t> bytes, off_t at);

} // namespace rvk
