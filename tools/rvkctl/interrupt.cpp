// See the header.
#include "rvkctl/interrupt.h"

#include "base/clock.h"

#include <algorithm>

namespace rvk::ctl {
namespace {

constexpr std::chrono::milliseconds pause_step{250};

volatile sig_atomic_t signal_came = 0;

void note(int signal) { signal_came = signal; }

} // namespace

interrupt_guard::interrupt_guard()
{
    signal_came = 0;
    struct sigaction once {};
    once.sa_handler = note;
    once.sa_flags = static_cast<int>(SA_RESETHAND);
    for (size_t i = 0; i < signals.size(); ++i) {
        sigaction(signals[i], nullptr, &before[i]);
        if (before[i].sa_handler != SIG_IGN) { sigaction(signals[i], &once, nullptr); } // nohup's stays ignored
    }
}

interrupt_guard::~interrupt_guard()
{
    for (size_t i = 0; i < signals.size(); ++i) { sigaction(signals[i], &before[i], nullptr); }
    const int signal = signal_came;
    signal_came = 0;
    if (signal != 0 && !accepted) { static_cast<void>(raise(signal)); }
}

bool interrupted() { return signal_came != 0; }

void pause_until(std::chrono::steady_clock::time_point end)
{
    for (auto now = std::chrono::steady_clock::now(); now < end && !interrupted();
         now = std::chrono::steady_clock::now()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
        pause_ms(static_cast<uint64_t>(std::min(left, pause_step).count()));
    }
}

} // namespace rvk::ctl
