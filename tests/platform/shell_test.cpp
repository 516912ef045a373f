// The command runners: a child must be an ordinary process whatever the calling thread is, and statuses must be its
// own.
#include "base/fd.h"
#include "platform/endpoint_folder.h"
#include "platform/platform.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <vector>

using namespace rvk;

namespace {

std::string output_of(const std::string& line)
{
    FILE* stream = my_popen(line.c_str(), "r");
    if (stream == nullptr) { return "cannot be run"; }
    std::string out;
    for (int c = fgetc(stream); c != EOF; c = fgetc(stream)) { out += static_cast<char>(c); }
    EXPECT_EQ(fclose(stream), 0);
    return out;
}

bool no_child_left() { return waitpid(-1, nullptr, WNOHANG) == -1 && errno == ECHILD; }

// As one of the daemon's threads: real-time where this user may, on one processor, with every signal blocked.
void become_real_time_thread()
{
    sched_param parameter{};
    parameter.sched_priority = 1;
    static_cast<void>(pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter));
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    sigset_t every;
    sigfillset(&every);
    pthread_sigmask(SIG_SETMASK, &every, nullptr);
}

void on_a_real_time_thread(const std::function<void()>& act)
{
    std::thread thread([&] {
        become_real_time_thread();
        act();
    });
    thread.join();
}

struct status_case {
    const char* line;
    int status;
};

} // namespace

TEST(Shell, StatusIsAsSystemReturnsIt)
{
    const status_case cases[] = {
        {"exit 0", 0}, {"exit 3", 3 << 8}, {"kill -TERM $$", SIGTERM}, {"/no/such/program 2>/dev/null", 127 << 8},
        {"", 0},       {"false; true", 0}};
    for (const status_case& c : cases) { EXPECT_EQ(my_system(c.line), c.status) << c.line; }
    EXPECT_NE(my_system(nullptr), 0);
}

TEST(Shell, ChildIsAnOrdinaryProcess)
{
    const endpoint_folder folder;
    const std::string result = folder.file("child");
    signal(SIGUSR1, SIG_IGN);
    signal(SIGUSR2, [](int) {});
    const unique_fd open_link{dup2(STDERR_FILENO, 100)}; // without close-on-exec
    // Of /proc/PID/stat: nice, real-time priority, policy.
    const std::string line = "exec > " + result +
                             "; grep -E '^Sig(Blk|Ign)' /proc/self/status; cut -d' ' -f19,40,41 /proc/self/stat;"
                             " grep Cpus_allowed_list /proc/self/status;"
                             " for i in $(seq 3 255); do test ! -e /proc/$$/fd/$i || echo open $i; done";
    on_a_real_time_thread([&] { EXPECT_EQ(my_system(line.c_str()), 0); });
    const std::string on_all = "grep Cpus_allowed_list /proc/self/status";
    EXPECT_EQ(output_of("cat " + result),
              "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0 0 0\n" + output_of(on_all));
    std::string popen_result;
    on_a_real_time_thread([&] { popen_result = output_of(on_all); });
    EXPECT_EQ(popen_result, output_of(on_all));
    EXPECT_EQ(signal(SIGUSR1, SIG_DFL), SIG_IGN) << "this process's own dispositions stay";
    signal(SIGUSR2, SIG_DFL);
}

TEST(Shell, ManyThreadsGetTheirOwnStatusAndOutput)
{
    std::vector<std::thread> threads;
    for (int t = 1; t <= 6; ++t) {
        threads.emplace_back([t] {
            for (int i = 0; i < 8; ++i) {
                EXPECT_EQ(my_system(("exit " + std::to_string(t)).c_str()), t << 8);
                EXPECT_EQ(output_of("echo " + std::to_string(t)), std::to_string(t) + "\n");
            }
        });
    }
    for (std::thread& thread : threads) { thread.join(); }
    EXPECT_TRUE(no_child_left());
}

TEST(Shell, ClosingAStreamEndsItsCommand)
{
    const endpoint_folder folder;
    FILE* slow = my_popen(("exec >&-; sleep 0.2; touch " + folder.file("done")).c_str(), "r");
    ASSERT_NE(slow, nullptr);
    EXPECT_EQ(fgetc(slow), EOF);
    EXPECT_EQ(fclose(slow), 0);
    EXPECT_EQ(access(folder.file("done").c_str(), F_OK), 0) << "it was not waited for";

    FILE* endless = my_popen("yes", "r");
    ASSERT_NE(endless, nullptr);
    EXPECT_EQ(fgetc(endless), 'y');
    EXPECT_EQ(fclose(endless), 0) << "its pipe is gone, so it ends";
    EXPECT_TRUE(no_child_left());
}

TEST(Shell, OnlyReadableStreamsAreToBeHad)
{
    EXPECT_EQ(my_popen("cat > /dev/null", "w"), nullptr);
    EXPECT_EQ(my_popen(nullptr, "r"), nullptr);
    EXPECT_TRUE(no_child_left());
}

TEST(Shell, StreamWorksWithStandardDescriptorsClosed)
{
    const pid_t child = fork();
    if (child == 0) {
        close(STDIN_FILENO);
        close(STDOUT_FILENO);
        _exit(output_of("echo here") == "here\n" ? 0 : 1);
    }
    int status = -1;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
}
