// See the header. Between fork and exec only async-signal-safe calls are made: another thread may have held any lock.
#include "platform/local/shell.h"

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

namespace rvk::local {
namespace {

constexpr int exec_failed = 127; // as system() reports it

void default_signals()
{
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) { sigaction(signal, &action, nullptr); } // SIGKILL's refusal is right
}

void normal_scheduling()
{
    const sched_param parameter{};
    static_cast<void>(sched_setscheduler(0, SCHED_OTHER, &parameter));
    setpriority(PRIO_PROCESS, 0, 0);
    cpu_set_t all;
    CPU_ZERO(&all);
    for (size_t cpu = 0; cpu < CPU_SETSIZE; ++cpu) { CPU_SET(cpu, &all); }
    static_cast<void>(sched_setaffinity(0, sizeof all, &all)); // the kernel keeps those that there are
}

bool redirect_output(int output)
{
    if (output == STDOUT_FILENO) { return fcntl(output, F_SETFD, 0) == 0; }
    return output < 0 || dup2(output, STDOUT_FILENO) == STDOUT_FILENO;
}

[[noreturn]] void become_shell(const char* line, int output)
{
    default_signals();
    normal_scheduling();
    if (redirect_output(output)) {
        umask(0077); // the daemon's is 0
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        execl("/bin/sh", "sh", "-c", line, static_cast<char*>(nullptr));
    }
    _exit(exec_failed);
}

} // namespace

pid_t start_shell(const char* line, int output)
{
    // Blocked across the fork: a handler of this process must not run in the child.
    sigset_t every, before;
    sigfillset(&every);
    pthread_sigmask(SIG_SETMASK, &every, &before);
    const pid_t child = fork();
    if (child == 0) { become_shell(line, output); }
    const int error = errno;
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    errno = error;
    return child;
}

int wait_for_shell(pid_t child)
{
    int status = 0;
    for (;;) {
        if (waitpid(child, &status, 0) == child) { return status; }
        if (errno != EINTR) { return -1; }
    }
}

} // namespace rvk::local
