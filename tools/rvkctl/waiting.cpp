#include "rvkctl/waiting.h"

#include "base/clock.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace rvk::ctl {
namespace {

constexpr std::chrono::milliseconds pause_step{250};
constexpr std::chrono::seconds show_interval{1};
constexpr char wipe_line[] = "\r\033[K";

volatile sig_atomic_t signal_came = 0;
bool accepted = false;

void note(int signal) { signal_came = signal; }

} // namespace

interrupt_guard::interrupt_guard()
{
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
    if (signal != 0 && (!accepted || signal == SIGPIPE)) { static_cast<void>(raise(signal)); }
}

void accept_interrupt() { accepted = true; }

bool interrupted() { return signal_came != 0; }

void pause_until(std::chrono::steady_clock::time_point end)
{
    for (auto now = std::chrono::steady_clock::now(); now < end && !interrupted();
         now = std::chrono::steady_clock::now()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
        pause_ms(static_cast<uint64_t>(std::min(left, pause_step).count()));
    }
}

life_sign::life_sign() : terminal(isatty(STDERR_FILENO) == 1) {}

life_sign::~life_sign()
{
    if (visible) { fputs(wipe_line, stderr); }
}

void life_sign::show(const std::function<std::string()>& doing)
{
    const auto now = clock::now();
    if (!terminal || now - shown < show_interval) { return; }
    shown = now;
    visible = true;
    const std::string what = doing ? doing() : "";
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - started).count();
    fprintf(stderr, "%srvkctl: %lld s%s%s", wipe_line, static_cast<long long>(seconds), what.empty() ? "" : ", ",
            what.c_str());
    fflush(stderr);
}

} // namespace rvk::ctl
