// Shows on a terminal that long work lives: one line on standard error with the time it has taken, wiped when it ends.
// In a pipe or a file nothing.
#pragma once

#include <chrono>
#include <string>

namespace rvk::ctl {

class life_sign {
public:
    life_sign();
    ~life_sign();
    life_sign(const life_sign&) = delete;
    life_sign& operator=(const life_sign&) = delete;

    // To be called while waiting, as often as one likes; shows a line each second, the first after one.
    // doing  what stands behind the time; may be empty
    void show(const std::string& doing);

private:
    using clock = std::chrono::steady_clock;

    bool terminal;
    clock::time_point started = clock::now(), shown = started;
    bool visible = false;
};

} // namespace rvk::ctl
