#include "processes.h"

#include "base/clock.h"
#include "base/rt_thread.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace rvk::bench {
namespace {

namespace fs = std::filesystem;

constexpr int start_seconds = 120;   // ours: more than the demo of a whole start takes
constexpr double quiet_share = 0.02; // of a processor; an idle daemon uses a tenth of it

fs::path folder_of(pid_t process) { return fs::path("/proc") / std::to_string(process); }

void pin_threads(pid_t process)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(processor), &set);
    for (const auto& thread : fs::directory_iterator(folder_of(process) / "task")) {
        require(sched_setaffinity(std::stoi(thread.path().filename()), sizeof set, &set) == 0,
                "a thread of rvkd cannot be pinned");
    }
}

bool is_quiet(pid_t process)
{
    const double before = processor_time_ns(process);
    pause_ms(1000);
    return processor_time_ns(process) - before < quiet_share * 1e9;
}

bool is_packet_socket(int fd)
{
    int domain = -1;
    socklen_t size = sizeof domain;
    return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 && domain == AF_PACKET;
}

} // namespace

child::child(const std::function<void()>& body)
{
    std::fflush(stdout); // or the child would write it again
    process = fork();
    require(process >= 0, "no process");
    if (process > 0) { return; }
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    body();
    std::_Exit(0);
}

child::~child()
{
    if (process < 0) { return; }
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

void child::stop() const
{
    int status = 0;
    kill(process, SIGSTOP);
    require(waitpid(process, &status, WUNTRACED) == process && WIFSTOPPED(status), "a process of this row ended");
}

void child::go_on() const { kill(process, SIGCONT); }

void child::wait()
{
    int status = 0;
    waitpid(std::exchange(process, -1), &status, 0);
    require(status == 0, "a process of this row failed");
}

double child::stopped(const std::function<double()>& loop) const
{
    stop();
    const double result = loop();
    go_on();
    return result;
}

ends::ends()
{
    int both[2];
    require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, both) == 0, "no socket");
    here.reset(both[0]);
    there.reset(both[1]);
}

worker::worker(const std::function<double(size_t)>& measure, const std::function<void()>& prepare)
    : body([&] {
          prepare();
          size_t argument = 0;
          while (read(channel.there.get(), &argument, sizeof argument) == sizeof argument) {
              const double result = measure(argument);
              if (write(channel.there.get(), &result, sizeof result) != sizeof result) { return; }
          }
      })
{
    channel.there.reset(); // the child's alone: its end is then seen
}

double worker::measure(size_t argument)
{
    double result = 0;
    require(write(channel.here.get(), &argument, sizeof argument) == sizeof argument &&
                read(channel.here.get(), &result, sizeof result) == sizeof result,
            "a process of this row ended");
    return result;
}

child launch_daemon()
{
    const std::string program = own_folder() + "/rvkd";
    return child([&program] {
        require(pin_to_processor(processor) == 0, "rvkd cannot be pinned");
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO); // its sysctl calls complain at every start
        dup2(STDERR_FILENO, STDOUT_FILENO);
        execl(program.c_str(), program.c_str(), nullptr);
        std::_Exit(1); // shows as a daemon whose demo does not come to its end
    });
}

child start_daemon(simulated_cards& cards)
{
    child daemon = launch_daemon();
    for (int tries = start_seconds * 10; !cards.has_played(end_of_playback); --tries) {
        require(tries > 0, "rvkd's demo does not come to its end: is it built, beside this program?");
        pause_ms(100);
    }
    for (int seconds = 0; !is_quiet(daemon.pid()); ++seconds) {
        require(seconds < start_seconds, "rvkd does not come to rest");
    }
    pin_threads(daemon.pid()); // where there are more processors, one of them has chosen another
    return daemon;
}

unique_fd packet_socket_of(pid_t process)
{
    const unique_fd handle{static_cast<int>(syscall(SYS_pidfd_open, process, 0))};
    for (const auto& entry : fs::directory_iterator(folder_of(process) / "fd")) {
        const int number = std::stoi(entry.path().filename());
        unique_fd copy{static_cast<int>(syscall(SYS_pidfd_getfd, handle.get(), number, 0))};
        if (copy && is_packet_socket(copy.get())) { return copy; }
    }
    fail("rvkd has no packet socket: is eth0 there?");
}

double processor_time_ns(pid_t process)
{
    double sum = 0;
    for (const auto& thread : fs::directory_iterator(folder_of(process) / "task")) {
        double used = 0;
        std::ifstream(thread.path() / "schedstat") >> used;
        sum += used;
    }
    return sum;
}

double resident_bytes(pid_t process, const char* which)
{
    std::ifstream status(folder_of(process) / "status");
    double kilobytes = 0;
    for (std::string word; status >> word;) {
        if (word == which && status >> kilobytes) { return kilobytes * 1024; }
    }
    fail("the kernel does not say how much memory a process has");
}

void forget_peak(pid_t process)
{
    std::ofstream file(folder_of(process) / "clear_refs");
    require(static_cast<bool>(file << "5" << std::flush), "the peak memory of a process cannot be counted anew");
}

std::string run_program(const std::vector<std::string>& arguments)
{
    const unique_fd output{memfd_create("standard error", MFD_CLOEXEC)};
    child program([&] {
        std::vector<char*> words;
        for (const std::string& word : arguments) { words.push_back(const_cast<char*>(word.c_str())); }
        words.push_back(nullptr);
        dup2(output.get(), STDERR_FILENO);
        execvp(words[0], words.data());
        std::perror(words[0]);
    });
    program.wait();
    std::string text(4096, '\0');
    text.resize(static_cast<size_t>(std::max<ssize_t>(pread(output.get(), text.data(), text.size(), 0), 0)));
    return text;
}

std::string own_folder() { return fs::read_symlink("/proc/self/exe").parent_path(); }

} // namespace rvk::bench
