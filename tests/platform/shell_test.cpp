// The command runners: a child must be an ordinary process whatever the calling thread is, and statuses its own.
#include "platform/endpoint_folder.h"
#include "platform/platform.h"

#include <csignal>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
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

} // namespace

TEST(Shell, StatusIsAsSystemReturnsIt)
{
    const std::pair<const char*, int> lines[] = {
        {"exit 3", 3 << 8}, {"kill -TERM $$", SIGTERM}, {"/no/such/program 2>/dev/null", 127 << 8}, {"", 0}};
    for (const auto& [line, status] : lines) { EXPECT_EQ(my_system(line), status) << line; }
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}

TEST(Shell, ChildIsAnOrdinaryProcess)
{
    const endpoint_folder folder;
    const std::string result = folder.path + "/child", processors = "grep Cpus_allowed_list /proc/self/status";
    signal(SIGUSR1, SIG_IGN);
    signal(SIGUSR2, [](int) {});
    const int kept_open = dup2(STDERR_FILENO, 100); // without close-on-exec
    // Of /proc/PID/stat: nice, real-time priority, policy.
    const std::string facts = "grep -E '^Sig(Blk|Ign)' /proc/self/status; cut -d' ' -f19,40,41 /proc/self/stat; " +
                              processors + "; for i in $(seq 3 255); do test ! -e /proc/$$/fd/$i || echo open $i; done";
    const std::string ordinary =
        "SigBlk:\t0000000000000000\nSigIgn:\t0000000000000000\n0 0 0\n" + output_of(processors);
    std::string popened;
    std::thread thread([&] {
        // As one of the daemon's: real-time where this user may, on one processor, with every signal blocked.
        sched_param parameter{};
        parameter.sched_priority = 1;
        static_cast<void>(pthread_setschedparam(pthread_self(), SCHED_FIFO, &parameter));
        const uint64_t first = 1;
        ASSERT_GT(syscall(SYS_sched_setaffinity, 0, sizeof first, &first), -1);
        sigset_t every;
        sigfillset(&every);
        pthread_sigmask(SIG_SETMASK, &every, nullptr);
        EXPECT_EQ(my_system(("exec > " + result + "; " + facts).c_str()), 0);
        popened = output_of(facts);
    });
    thread.join();
    EXPECT_EQ(output_of("cat " + result), ordinary);
    EXPECT_EQ(popened, ordinary);
    EXPECT_EQ(signal(SIGUSR1, SIG_DFL), SIG_IGN) << "this process's own dispositions stay";
    close(kept_open);
}

TEST(Shell, ClosingAStreamEndsItsCommand)
{
    const endpoint_folder folder;
    EXPECT_EQ(output_of("exec >&-; sleep 0.2; touch " + folder.path + "/done"), "");
    EXPECT_TRUE(std::filesystem::exists(folder.path + "/done")) << "it was not waited for";
    FILE* endless = my_popen("yes", "r");
    ASSERT_NE(endless, nullptr);
    EXPECT_EQ(fgetc(endless), 'y');
    EXPECT_EQ(fclose(endless), 0) << "its pipe is gone, so it ends";
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
}
