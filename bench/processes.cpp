// See the header.
#include "processes.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/clock.h"
#include "base/rt_thread.h"
#include "harness.h"
#include "requester/requester.h"

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

using std::chrono::milliseconds;
namespace fs = std::filesystem;

constexpr int start_seconds = 120;   // ours: more than the demo of a whole start takes
constexpr double quiet_share = 0.02; // of a processor; an idle daemon uses a tenth of it

void pin_threads(pid_t process)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(processor), &set);
    for (const auto& thread : fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        if (sched_setaffinity(std::stoi(thread.path().filename()), sizeof set, &set) != 0) {
            fail("a thread of rvkd cannot be pinned");
        }
    }
}

bool answers_greeting(requester& asker)
{
    std::vector<uint8_t> greeting(message_head_bytes);
    store_le32(greeting.data() + message::aptid, asker.identity());
    store_le16(greeting.data() + message::msg_class, static_cast<uint16_t>(data_class));
    greeting[message::code] = command::greeting;
    if (asker.send(own_identity(), greeting) != endpoint_status::ok) { return false; }
    return !asker.receive(milliseconds{100}).empty();
}

void wait_for_greeting()
{
    requester asker;
    fs::create_directories(socket_directory());
    if (asker.open_free(static_cast<uint8_t>(own_identity() >> 24)) != endpoint_status::ok) { fail("no endpoint"); }
    for (int tries = start_seconds * 10; !answers_greeting(asker); --tries) {
        if (tries == 0) { fail("rvkd does not answer: is it built, beside this program?"); }
        pause_ms(100);
    }
    while (!asker.receive(milliseconds{200}).empty()) {}
}

// It is idle also in the pauses before the demo; that the demo is over only its cards know.
void wait_for_demo(const simulated_cards& cards)
{
    for (int tries = start_seconds * 10; !cards.demo_is_over(); --tries) {
        if (tries == 0) { fail("rvkd's demo does not come to its end"); }
        pause_ms(100);
    }
}

void wait_until_quiet(pid_t process)
{
    for (int seconds = 0; seconds < start_seconds; ++seconds) {
        const double before = processor_time_ns(process);
        pause_ms(1000);
        if (processor_time_ns(process) - before < quiet_share * 1e9) { return; }
    }
    fail("rvkd does not come to rest");
}

int kind_of_socket(int fd)
{
    int domain = -1;
    socklen_t size = sizeof domain;
    return getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size) == 0 ? domain : -1;
}

} // namespace

child::child(const std::function<void()>& body)
{
    std::fflush(stdout); // or the child would write it again
    process = fork();
    if (process < 0) { fail("no process"); }
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
    if (waitpid(process, &status, WUNTRACED) != process || !WIFSTOPPED(status)) { fail("a process of this row ended"); }
}

void child::wait()
{
    int status = 0;
    waitpid(std::exchange(process, -1), &status, 0);
    if (status != 0) { fail("a process of this row failed"); }
}

void child::go_on() const { kill(process, SIGCONT); }

worker::channel::channel()
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) { fail("no pipe"); }
    read_end.reset(ends[0]);
    write_end.reset(ends[1]);
}

worker::worker(const std::function<void()>& prepare, const std::function<double(size_t)>& measure)
    : body([&] {
          prepare();
          size_t argument = 0;
          while (read(questions.read_end.get(), &argument, sizeof argument) == sizeof argument) {
              const double result = measure(argument);
              if (write(answers.write_end.get(), &result, sizeof result) != sizeof result) { return; }
          }
      })
{
    answers.write_end.reset(); // the child's alone: its end is then seen
}

double worker::measure(size_t argument)
{
    double result = 0;
    if (write(questions.write_end.get(), &argument, sizeof argument) != sizeof argument ||
        read(answers.read_end.get(), &result, sizeof result) != sizeof result) {
        fail("a process of this row ended");
    }
    return result;
}

child launch_daemon()
{
    const std::string program = own_folder() + "/rvkd";
    return child([&program] {
        if (pin_to_processor(processor) != 0) { fail("rvkd cannot be pinned"); }
        dup2(open("/dev/null", O_WRONLY), STDERR_FILENO); // its sysctl calls complain at every start
        execl(program.c_str(), program.c_str(), nullptr);
        std::_Exit(1); // shows as a daemon that does not answer
    });
}

child start_daemon(const simulated_cards& cards)
{
    child daemon = launch_daemon();
    wait_for_greeting();
    wait_for_demo(cards);
    wait_until_quiet(daemon.pid());
    pin_threads(daemon.pid()); // where there are more processors, one of them has chosen another
    return daemon;
}

unique_fd packet_socket_of(pid_t process)
{
    const unique_fd handle{static_cast<int>(syscall(SYS_pidfd_open, process, 0))};
    for (const auto& entry : fs::directory_iterator("/proc/" + std::to_string(process) + "/fd")) {
        const int number = std::stoi(entry.path().filename());
        unique_fd copy{static_cast<int>(syscall(SYS_pidfd_getfd, handle.get(), number, 0))};
        if (copy && kind_of_socket(copy.get()) == AF_PACKET) { return copy; }
    }
    fail("rvkd has no packet socket: is eth0 there?");
}

double processor_time_ns(pid_t process)
{
    double sum = 0;
    for (const auto& thread : fs::directory_iterator("/proc/" + std::to_string(process) + "/task")) {
        double used = 0;
        std::ifstream(thread.path() / "schedstat") >> used;
        sum += used;
    }
    return sum;
}

double resident_bytes(pid_t process)
{
    double whole = 0, resident = 0;
    std::ifstream("/proc/" + std::to_string(process) + "/statm") >> whole >> resident;
    return resident * static_cast<double>(sysconf(_SC_PAGESIZE));
}

void forget_peak(pid_t process)
{
    std::ofstream file("/proc/" + std::to_string(process) + "/clear_refs");
    if (!(file << "5" << std::flush)) { fail("the peak memory of a process cannot be counted anew"); }
}

double peak_bytes(pid_t process)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string word; status >> word;) {
        double kilobytes = 0;
        if (word == "VmHWM:" && status >> kilobytes) { return kilobytes * 1024; }
    }
    fail("the kernel does not say how much memory a process had");
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
    const ssize_t length = pread(output.get(), text.data(), text.size(), 0);
    text.resize(length > 0 ? static_cast<size_t>(length) : 0);
    return text;
}

std::string own_folder() { return fs::read_symlink("/proc/self/exe").parent_path(); }

} // namespace rvk::bench
