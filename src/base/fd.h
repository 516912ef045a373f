// Ownership of file descriptors.
#pragma once

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

} // namespace rvk
