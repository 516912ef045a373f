// A signal that asks to end, kept back until what was made is cleared away.
//
// While a guard lives, the first SIGINT, SIGTERM or SIGHUP only makes every wait for the daemon end in a failure.
// Whoever made something clears it away as the failure passes, and then the guard lets the signal end the process as it
// always would have. A second signal ends it at once. One guard at a time.
#pragma once

#include <array>
#include <chrono>
#include <csignal>

namespace rvk::ctl {

class interrupt_guard {
public:
    interrupt_guard();
    ~interrupt_guard();
    interrupt_guard(const interrupt_guard&) = delete;
    interrupt_guard& operator=(const interrupt_guard&) = delete;

    // The signal was the orderly end of the work: the process goes on.
    void accept() { accepted = true; }

private:
    static constexpr std::array signals{SIGINT, SIGTERM, SIGHUP};

    std::array<struct sigaction, signals.size()> before{};
    bool accepted = false;
};

// Whether a signal came since a guard was made.
[[nodiscard]] bool interrupted();

// Pauses until then, or until a signal came, which it notices within a quarter of a second.
void pause_until(std::chrono::steady_clock::time_point end);

} // namespace rvk::ctl
