// Waits until another process has written two files and closed them.
#pragma once

#include "base/fd.h"

#include <array>
#include <chrono>
#include <cstdint>
#include <string>

namespace rvk::ctl {

class file_watch {
public:
    // A file and the size that it is to have, in bytes.
    struct expected {
        std::string path;
        uint64_t bytes;
    };

    // From now on. The files' folders must exist; throws a failure.
    file_watch(const expected& first, const expected& second);

    // To be called when the other process has begun.
    void begun() { last_event = clock::now(); }

    // Waits for a while. Result: whether both were closed after writing. Throws a failure when one was closed and
    // nothing has opened the other for a second, or when nothing has opened either for five: it could not be opened.
    bool both_closed(std::chrono::milliseconds wait);

private:
    using clock = std::chrono::steady_clock;

    struct watched {
        std::string path, name{};
        uint64_t bytes = 0;
        int folder = -1;
        bool opened = false, closed = false;
    };

    void note(const char* events, size_t bytes);
    void look_at_the_files();
    void check_for_a_missing_one() const;
    void check_for_missing_ones() const;

    unique_fd fd;
    std::array<watched, 2> files;
    clock::time_point last_event = clock::now();
    bool missed_events = false;
};

} // namespace rvk::ctl
