// Waits until another process has written two files and closed them.
#pragma once

#include "base/fd.h"

#include <array>
#include <chrono>
#include <string>

namespace rvk::ctl {

class file_watch {
public:
    // From now on. The files' folders must exist; throws a failure.
    file_watch(const std::string& first, const std::string& second);

    // Waits for a while. Result: whether both were closed after writing. Throws a failure when one was closed and
    // nothing has opened the other for a second: it could not be opened.
    bool both_closed(std::chrono::milliseconds wait);

private:
    using clock = std::chrono::steady_clock;

    struct watched {
        std::string path, name;
        int folder = -1;
        bool opened = false, closed = false;
    };

    void note(const char* events, size_t bytes);
    void check_for_a_missing_one();

    unique_fd fd;
    std::array<watched, 2> files;
    clock::time_point last_event = clock::now();
};

} // namespace rvk::ctl
