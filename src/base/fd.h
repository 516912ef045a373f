// File descriptors, whole reads and writes of regular files, and big buffers for what is in them.
#pragma once

#include <cstddef>
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
// whatever else was inherited is kept from the commands that this process runs. Before anything is opened.
// access  O_RDWR: what is printed is lost in silence; O_RDONLY: printing fails
void prepare_descriptors(int access);

// Opens a regular file without blocking.
// flags   as open(): the access mode, O_CREAT; a file that is created gets `mode` less the umask
// Result  none (errno tells why; EINVAL for a FIFO, device or folder)
[[nodiscard]] unique_fd open_regular(const char* path, int flags, mode_t mode = 0600);

// Opens a regular file, to read and write, at a path that others may have prepared; a missing one is created with
// `mode` (0: not at all). An existing one is opened without O_CREAT, which the system refuses for others' files in
// /tmp.
// Result  none (errno tells why; ELOOP for a symbolic link that root did not make)
[[nodiscard]] unique_fd open_output(const char* path, mode_t mode);

// Why open_regular or open_output gave none, in words; by errno, so before anything else sets it.
[[nodiscard]] const char* open_failure();

// Waits until a descriptor can be read. Result: false when the time ran out or a signal came (EINTR).
[[nodiscard]] bool wait_readable(int fd, uint64_t at_most_ms);

// Size of an open file in bytes, -1 when it cannot be had.
[[nodiscard]] off_t size_of(const unique_fd& file);

// Reads from the file's position on, and lets others run meanwhile (clock.h), as write_full does.
// Result: bytes read; fewer than asked for only at the file's end or on an error.
[[nodiscard]] size_t read_full(const unique_fd& file, std::span<uint8_t> into);

// Writes at an offset. Result: false (errno tells why) when not all of it could be written.
[[nodiscard]] bool write_full(const unique_fd& file, std::span<const uint8_t> bytes, off_t at);

// Zero-filled pages straight from the system, given back at once, so that the daemon is as small after a picture as
// before it; large ones where the system has them, since page faults are most of what a picture in memory costs.
class page_buffer {
public:
    explicit page_buffer(size_t bytes); // 0 is a buffer too
    ~page_buffer();
    page_buffer(const page_buffer&) = delete;
    page_buffer& operator=(const page_buffer&) = delete;

    explicit operator bool() const { return in_use.data() != nullptr; } // false when the system has no memory
    std::span<uint8_t> bytes() const { return in_use; }

private:
    std::span<uint8_t> mapped;
    std::span<uint8_t> in_use; // from the first large page on
};

} // namespace rvk
