// The process: its end and its status files. The main thread calls the start of each, once.
// SIGINT, SIGQUIT, SIGSEGV and SIGTERM end the process, with lines in the log and status 0 (1 without memory for the
// trace). Termination signals are delivered to the thread rvk-signal alone, which never holds a lock; a fault is
// handled on the thread that caused it. task_die takes the trace there, possibly inside the allocator or a log call,
// and hands it to the thread rvk-death, which logs it and exits.
// Once a second the daemon's figures are written to status.json and status.prom, in /run/rvkd or in the folder that
// RVK_STATUS_DIR names: readable by everybody, always whole, and left there at the daemon's end.
#pragma once

#include <cstdint>

namespace rvk {

// Blocks what must not hit a thread at work: termination, ticks, SIGPIPE, SIGXFSZ. Threads started later inherit it.
void block_signals();

// Starts the two threads, then installs the handlers: SIGHUP ignored; SIGINT, SIGQUIT, SIGSEGV and SIGTERM end the
// process through task_die. Without the threads, said in one line, these four do what the system does by default.
void signal_set();

// Signal handler. Logs which signal it was, "task_die!!!" and the stack trace, empties the pool, exits as said above;
// within 2 s in any case, also when logging cannot finish because the thread that was hit holds a lock.
[[noreturn]] void task_die(int sig);

// Logs the calling thread's stack trace. The daemon does not call it.
void putstackinfo();

// Starts the thread, of ordinary priority, that writes the status files, tells the service manager that the daemon
// lives, looks after the links' devices, and offers kept answers where no link is open. It waits for no card.
// Result: 0, or -1 (logged); the daemon runs on without.
int32_t start_status_thread();

} // namespace rvk
