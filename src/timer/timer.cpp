#include "timer/timer.h"

#include "base/clock.h"

#include <csignal>
#include <sys/time.h>

namespace rvk {

std::atomic<int32_t> elapsed{0};

namespace {

// A SIGALRM that a process sent is no tick, unless in the place of the timer's own: the kernel keeps only one pending.
void take_alarm(int signal, siginfo_t* info, void*)
{
    static std::atomic<uint32_t> last_us{0};
    const uint32_t now_us = monotonic_us();
    if (info->si_code != SI_KERNEL && now_us - last_us < uint32_t{tick_us}) { return; }
    last_us = now_us;
    catch_alarm(signal);
}

} // namespace

int initTimer()
{
    signal(SIGALRM, SIG_IGN);
    elapsed = 0;
    itimerval every{};
    every.it_value.tv_usec = tick_us;
    every.it_interval.tv_usec = tick_us;
    struct sigaction action = {};
    action.sa_sigaction = take_alarm;
    action.sa_flags = SA_RESTART | SA_SIGINFO;
    sigaction(SIGALRM, &action, nullptr);
    return setitimer(ITIMER_REAL, &every, nullptr);
}

void catch_alarm(int) { elapsed.fetch_add(1, std::memory_order_relaxed); }

void receive_ticks_here()
{
    sigset_t ticks;
    sigemptyset(&ticks);
    sigaddset(&ticks, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &ticks, nullptr);
}

} // namespace rvk
