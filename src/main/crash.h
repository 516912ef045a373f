// The process's end: it comes only by a signal, gets its lines in the log, and the status is 0 whatever the signal.
//
// Two threads exist for it. Termination signals are delivered only to the first, which holds no lock, ever; a fault
// hits whichever thread has it. Either way task_die takes the trace on the thread that was hit and hands it to the
// second thread, which logs it and exits: the thread that was hit may be inside the allocator or inside a log call.
#pragma once

namespace rvk {

// Blocks the signals that must not hit a thread at work: termination, ticks, SIGPIPE, SIGXFSZ. Threads started later
// inherit it.
void block_signals();

// Starts the two threads, then installs the handlers: SIGHUP ignored; SIGINT, SIGQUIT, SIGSEGV and SIGTERM end the
// process through task_die. Without the threads, said in one line, there are no handlers, and these four do what the
// system does by default.
void signal_set();

// Signal handler. Logs which signal it was, "task_die!!!" and the stack trace, empties the pool, exits with status 0;
// within 2 s in any case, also when logging cannot finish because the thread that was hit holds a lock.
[[noreturn]] void task_die(int sig);

// Logs the calling thread's stack trace.
void putstackinfo();

} // namespace rvk
