// The calls of platform.h that run a shell command line or ask for the board's number. Any thread; keeps no state.
// Every call is weak, so that a test or a tool that defines it gets its own. The child is an ordinary process again:
// what the daemon's threads need (real-time priority, a processor of their own, blocked signals, open links) must not
// leak into a tool that it runs. No signal disposition is touched, as system() would: what one thread ignores for a
// while all of them ignore. Between fork and exec only async-signal-safe calls: another thread may hold any lock.
#include "base/fd.h"
#include "main/log.h"
#include "platform/platform.h"

#include <atomic>
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <memory>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <string_view>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace rvk;

namespace {

constexpr int exec_failed = 127; // as system() reports it

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
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal) { sigaction(signal, &action, nullptr); } // SIGKILL's refusal is right
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

// Starts `/bin/sh -c line` with normal scheduling, all processors, default signals, an empty mask, umask 0077 and no
// descriptor but 0 to 2 and what is not close-on-exec: that is meant for it.
// output  becomes the child's standard output; -1 leaves it this process's own
// Result  the child, to be waited for with wait_for_shell; -1 with errno set
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

// Waits until the child has ended. Result: its wait status, -1 with errno set when it cannot be had.
int wait_for_shell(pid_t child)
{
    int status = 0;
    return TEMP_FAILURE_RETRY(waitpid(child, &status, 0)) == child ? status : -1;
}

// A command's output: the stream owns the pipe and the child, and closing it waits for the child.
struct command_stream {
    unique_fd output;
    pid_t child = -1; // none was started
};

ssize_t read_output(void* cookie, char* buffer, size_t size)
{
    return TEMP_FAILURE_RETRY(::read(static_cast<command_stream*>(cookie)->output.get(), buffer, size));
}

// The pipe goes first: a command that still writes then ends of SIGPIPE instead of keeping us.
int end_command(void* cookie)
{
    const std::unique_ptr<command_stream> stream{static_cast<command_stream*>(cookie)};
    stream->output.reset();
    return stream->child < 0 || wait_for_shell(stream->child) >= 0 ? 0 : -1;
}

// Both ends above the standard descriptors, which the child takes over as they are.
bool make_pipe(unique_fd& reader, unique_fd& writer)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) { return false; }
    const unique_fd first_reader{ends[0]}, first_writer{ends[1]};
    reader.reset(fcntl(first_reader.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    writer.reset(fcntl(first_writer.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1));
    return reader && writer;
}

constexpr int default_board = 1;
constexpr unsigned board_max = 255;
std::atomic<bool> refusal_logged{false};

// Decimal or 0x…, digits only; -1 for anything else. A leading zero does not make a number octal.
int board_in(std::string_view text)
{
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    unsigned value = 0;
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + (hex ? 2 : 0), end, value, hex ? 16 : 10);
    return error == std::errc{} && rest == end && value <= board_max ? static_cast<int>(value) : -1;
}

} // namespace

[[gnu::weak]] int my_system(const char* line)
{
    if (line == nullptr) { return access("/bin/sh", X_OK) == 0; } // as system() answers it: is there a shell?
    const pid_t child = start_shell(line, -1);
    return child < 0 ? -1 : wait_for_shell(child);
}

[[gnu::weak]] FILE* my_popen(const char* line, const char* mode)
{
    if (line == nullptr || mode == nullptr || mode[0] != 'r') {
        errno = EINVAL;
        return nullptr;
    }
    std::unique_ptr<command_stream> stream{new (std::nothrow) command_stream};
    unique_fd writer;
    if (!stream || !make_pipe(stream->output, writer)) { return nullptr; }
    FILE* file = fopencookie(stream.get(), "r", {read_output, nullptr, nullptr, end_command});
    if (file == nullptr) { return nullptr; }
    stream->child = start_shell(line, writer.get());
    command_stream* owned = stream.release(); // the stream's from here on
    if (owned->child >= 0) { return file; }
    const int error = errno;
    fclose(file);
    errno = error;
    return nullptr;
}

// An ordinary machine has no backplane to ask: the number is the environment's. A wrong one is logged once.
[[gnu::weak]] int apcard_bit_self(void)
{
    static const char* const text = getenv("APCARD_SELF"); // a process keeps its board
    if (text == nullptr || *text == '\0') { return default_board; }
    const int board = board_in(text);
    if (board >= 0) { return board; }
    if (!refusal_logged.exchange(true)) {
        log_print(LOG_HERE, "APCARD_SELF \"%s\" is not a number from 0 to %u; board %d is taken\n", text, board_max,
                  default_board);
    }
    return default_board;
}
