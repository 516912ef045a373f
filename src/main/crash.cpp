#include "main/main.h"

#include "base/clock.h"
#include "base/mutex.h"
#include "base/rt_thread.h"
#include "main/log.h"
#include "mem/mem.h"

#include <atomic>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <initializer_list>
#include <sys/syscall.h>
#include <unistd.h>

namespace rvk {
namespace {

constexpr int trace_frames_max = 100;  // ours: deeper frames are dropped
constexpr uint64_t logging_ms = 1'500; // ours: the process is gone within 2 s

struct stack_trace {
    void* addresses[trace_frames_max];
    int count;
};

// Written by the owner before it posts.
stack_trace crash_trace;
int crash_signal;

std::atomic<int> owner{0};         // kernel thread id of the first thread that was hit
std::atomic<int> signal_thread{0}; // kernel thread id of the one that serves terminations, once it does
semaphore trace_taken{0};
semaphore handlers_set{0};

sigset_t set_of(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals) { sigaddset(&set, signal); }
    return set;
}

void log_trace(const stack_trace& trace)
{
    log_print(LOG_HERE, "backtrace() returned %d addresses\n", trace.count);
    char** symbols = backtrace_symbols(trace.addresses, trace.count);
    if (symbols == nullptr) {
        log_print(LOG_HERE, "backtrace_symbols");
        exit(1);
    }
    for (int i = 0; i < trace.count; ++i) { log_print(LOG_HERE, "%s\n", symbols[i]); }
    free(symbols);
}

[[noreturn]] void log_and_exit(int)
{
    // Gives this thread an allocator arena of its own: the faulting thread may hold the lock of the one it uses. The
    // pointer is volatile so that the compiler keeps the call.
    void* volatile own_arena = malloc(1);
    free(own_arena);
    trace_taken.wait();
    // The heap may be broken: when the allocator aborts, this thread waits in task_die for the process's end, too.
    signal(SIGABRT, task_die);
    logs_process_end = true;
    log_print(LOG_HERE, "ended by signal %d, SIG%s\n", crash_signal, sigabbrev_np(crash_signal));
    log_print(LOG_HERE, "task_die!!!\n");
    log_trace(crash_trace);
    mem_uinit();
    exit(0);
}

void unblock_termination()
{
    const sigset_t termination = set_of({SIGINT, SIGQUIT, SIGTERM});
    pthread_sigmask(SIG_UNBLOCK, &termination, nullptr);
}

void wait_for_termination(int)
{
    handlers_set.wait();
    unblock_termination();
    signal_thread = kernel_thread_id();
    for (;;) { pause(); }
}

// A SIGSEGV that a process sends may be delivered to any thread, one that is writing to the log or rvk-death itself. It
// is passed on to rvk-signal, which holds no lock, and ignored once the process is ending.
void fault_or_termination(int signal, siginfo_t* info, void*)
{
    const bool sent = info->si_code <= 0;
    if (sent && owner != 0) { return; }
    const int server = signal_thread;
    if (info->si_code == SI_USER && server != 0 && server != kernel_thread_id()) {
        tgkill(getpid(), server, signal);
        return;
    }
    task_die(signal);
}

} // namespace

void block_signals()
{
    const sigset_t blocked = set_of({SIGINT, SIGQUIT, SIGTERM, SIGALRM, SIGPIPE, SIGXFSZ});
    pthread_sigmask(SIG_SETMASK, &blocked, nullptr); // whatever mask we were started with
}

void signal_set()
{
    signal(SIGHUP, SIG_IGN);
    stack_trace first;
    backtrace(first.addresses, trace_frames_max); // loads a library at its first call, which no handler may do
    use_alternate_signal_stack();
    if (start_thread_or_retry("rvk-death", log_and_exit) != 0 ||
        start_thread_or_retry("rvk-signal", wait_for_termination) != 0) {
        log_print(LOG_HERE, "failed to create thread : a signal will end the process without lines in this log\n");
        return unblock_termination();
    }
    struct sigaction action = {};
    action.sa_sigaction = fault_or_termination;
    action.sa_mask = set_of({SIGINT, SIGQUIT, SIGTERM});
    for (const int signal : {SIGINT, SIGQUIT, SIGSEGV, SIGTERM}) {
        action.sa_flags = SA_SIGINFO | SA_RESTART | SA_ONSTACK;
        if (signal == SIGSEGV) { action.sa_flags |= SA_NODEFER; } // a fault inside the handler comes back to it
        sigaction(signal, &action, nullptr);
    }
    handlers_set.post();
}

void task_die(int sig)
{
    const int self = kernel_thread_id();
    int first = 0;
    if (owner.compare_exchange_strong(first, self)) {
        crash_signal = sig;
        crash_trace.count = backtrace(crash_trace.addresses, trace_frames_max);
        trace_taken.post();
    } else if (first == self) {
        trace_taken.post(); // hit again while taking the trace: without it
    }
    pause_ms(logging_ms);
    for (;;) { syscall(SYS_exit_group, 0); } // at once, whatever is locked: a sanitizer puts a flush in front of _exit
}

void putstackinfo()
{
    stack_trace trace;
    trace.count = backtrace(trace.addresses, trace_frames_max);
    log_trace(trace);
}

} // namespace rvk
