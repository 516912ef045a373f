// What a person sees and may do while rvkctl waits: that it lives, and a signal that ends it in order.
#pragma once

#include <array>
#include <chrono>
#include <csignal>
#include <functional>
#include <string>

namespace rvk::ctl {

// Lives as long as the program's work. The first SIGINT, SIGTERM, SIGHUP or SIGPIPE then only makes every wait for the
// daemon end in a failure; whoever made something clears it away as that passes, and at its end the guard lets the
// signal end the process as it always would have. A second one ends it at once. One guard at a time.
class interrupt_guard {
public:
    interrupt_guard();
    ~interrupt_guard();
    interrupt_guard(const interrupt_guard&) = delete;
    interrupt_guard& operator=(const interrupt_guard&) = delete;

private:
    static constexpr std::array signals{SIGINT, SIGTERM, SIGHUP, SIGPIPE};

    std::array<struct sigaction, signals.size()> before{};
};

// From now on a signal is an orderly end of the work: the process ends with its own status (but for SIGPIPE).
void accept_interrupt();

// Whether a signal came since the guard was made.
[[nodiscard]] bool interrupted();

// Pauses until then, or until a signal came, which it notices within a quarter of a second.
void pause_until(std::chrono::steady_clock::time_point end);

// One line on standard error, when that is a terminal, with the time that the work has taken; wiped when it ends.
class life_sign {
public:
    life_sign();
    ~life_sign();
    life_sign(const life_sign&) = delete;
    life_sign& operator=(const life_sign&) = delete;

    // To be called while waiting, as often as one likes; shows a line each second, the first after one.
    // doing  says what stands behind the time, is asked for each line; may be none
    void show(const std::function<std::string()>& doing);

private:
    using clock = std::chrono::steady_clock;

    bool terminal;
    clock::time_point started = clock::now(), shown = started;
    bool visible = false;
};

} // namespace rvk::ctl
