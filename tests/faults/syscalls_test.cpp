// System calls of the running daemon fail, or do less than they were asked: each row of a table lets strace inject it
// into the daemon while it carries out a command. The answer is what it should be, within a bounded time, nothing
// spins, and the next command works.
#include "faults/faulty_daemon.h"
#include "faults/injection.h"

#include <gtest/gtest.h>

#include <chrono>
#include <map>

using namespace rvk;

namespace {

constexpr uint64_t most_ticks = 30;         // of the daemon's processor time in a case, 10 ms each
constexpr milliseconds most_time{5'000};    // for a case, strace's start not counted
constexpr uint64_t lasting_ms = 700;        // how long a fault stays that does not go away
constexpr uint64_t most_lasting_ticks = 40; // meanwhile

constexpr int most_calls = 100; // of a kind that a start makes

using results = std::vector<int32_t>;
const results good{0}, refused{-1}, silent{};

struct row {
    const char* job;
    const char* call;
    const char* when; // which call of each thread
    std::vector<const char*> faults;
    results expected;
    results or_else = expected;
};

// A retval is given back without the call being made.
const row rows[] = {
    // The frame, then the answer.
    {"read", "sendto", "1", {"error=EAGAIN"}, good},
    {"read", "sendto", "1..2", {"error=EAGAIN"}, refused},
    {"read", "sendto", "1", {"error=ENOBUFS", "error=ENETDOWN", "error=ENXIO", "error=EMSGSIZE"}, refused},
    {"read", "sendto", "1", {"error=EPERM", "error=EINTR", "error=ENOMEM", "retval=0", "retval=50"}, refused},
    {"read", "sendto", "2", {"error=EAGAIN", "error=EINTR"}, good},
    {"read", "sendto", "2", {"error=ENOBUFS", "error=ENOMEM", "error=ECONNREFUSED", "error=ENOENT"}, silent},
    {"write", "sendto", "1", {"error=ENOBUFS", "error=ENETDOWN", "retval=10"}, refused},
    {"unwaited", "sendto", "1", {"error=ENOBUFS", "error=ENETDOWN", "error=EINTR", "retval=10"}, silent},
    {"plain", "sendto", "1", {"error=ENOBUFS", "error=ENETDOWN", "error=EINTR", "retval=10"}, silent},
    {"greeting", "sendto", "1", {"error=EAGAIN", "error=EINTR"}, good},
    {"greeting", "sendto", "1", {"error=ENOBUFS", "error=EACCES"}, silent},
    // Of both sockets: what waits for them is received later. A retval is a length that nothing was received for.
    {"read", "recvfrom", "1", {"error=EINTR", "error=EAGAIN", "error=ENETDOWN", "error=ENOBUFS"}, good},
    {"read", "recvfrom", "1", {"error=ENOMEM", "error=EBADF", "error=EFAULT"}, good},
    {"read", "recvfrom", "1", {"retval=0", "retval=5", "retval=100"}, good},
    {"update", "recvfrom", "1", {"error=EINTR", "error=ENETDOWN"}, good},
    {"read", "clock_nanosleep", "1", {"error=EINTR"}, good},
    {"read", "clock_nanosleep", "1..5", {"error=EINTR"}, good},
    // A picture that cannot be had is black.
    {"put", "access", "1", {"error=EACCES", "error=EIO"}, good},
    {"put", "newfstatat", "1", {"error=EACCES", "error=EIO"}, good},
    {"put", "newfstatat", "2", {"error=EIO"}, good},
    {"put", "newfstatat", "3", {"error=EIO"}, good},
    {"put", "openat", "1", {"error=EACCES", "error=EMFILE", "error=ENFILE", "error=EINTR"}, good},
    {"put", "openat", "1", {"error=ENOMEM", "error=EIO", "error=ENXIO"}, good},
    {"put", "read", "1", {"error=EIO", "error=EINTR", "error=EAGAIN", "error=EISDIR"}, good},
    {"put", "read", "1", {"retval=0", "retval=1", "retval=100"}, good},
    {"put", "mmap", "1", {"error=ENOMEM", "error=EAGAIN"}, good},
    {"put", "mmap", "1+", {"error=ENOMEM"}, refused},
    {"put", "madvise", "1", {"error=EINVAL", "error=EAGAIN", "error=ENOMEM"}, good},
    {"put", "sendto", "1", {"error=ENOBUFS", "error=ENETDOWN", "retval=10"}, good},
    {"put", "sendto", "3", {"error=ENOBUFS", "error=ENETDOWN", "retval=10"}, good},
    // Nobody is told how a read-back ended.
    {"get", "openat", "1", {"error=EACCES", "error=EMFILE", "error=ENOSPC", "error=EROFS", "error=EINTR"}, silent},
    {"get", "openat", "2", {"error=EACCES", "error=EMFILE", "error=EIO"}, silent},
    {"get", "newfstatat", "2", {"error=EIO", "error=ENOMEM"}, silent},
    {"get", "ftruncate", "1", {"error=EIO", "error=EINTR", "error=EROFS"}, silent},
    {"get", "ftruncate", "2", {"error=EIO"}, silent},
    {"get", "pwrite64", "1", {"error=ENOSPC", "error=EIO", "error=EINTR", "error=EFBIG"}, silent},
    {"get", "pwrite64", "1", {"retval=0", "retval=1"}, silent},
    {"get", "pwrite64", "2", {"error=ENOSPC", "error=EINTR", "retval=0", "retval=7"}, silent},
    {"get", "pwrite64", "3", {"error=ENOSPC", "error=EDQUOT"}, silent},
    {"get", "mmap", "1", {"error=ENOMEM"}, silent},
    {"get", "mmap", "2", {"error=ENOMEM"}, silent},
    {"get", "clone", "1", {"error=EAGAIN", "error=ENOMEM"}, silent},
    {"get", "wait4", "1", {"error=EINTR", "error=ECHILD"}, silent},
    {"get", "sendto", "1", {"error=ENOBUFS"}, silent},
    // An image that cannot be copied is not sent. What only shows the progress does not count.
    {"update", "access", "1", {"error=EIO"}, refused},
    {"update", "newfstatat", "1", {"error=EIO"}, refused},
    {"update", "openat", "1", {"error=EACCES", "error=EMFILE", "error=EINTR"}, refused},
    {"update", "openat", "2", {"error=EACCES", "error=ENOSPC"}, refused},
    {"update", "openat", "3", {"error=EMFILE"}, refused},
    {"update", "read", "1", {"error=EIO", "retval=0"}, refused},
    {"update", "read", "1", {"error=EINTR"}, good},
    {"update", "pwrite64", "1", {"error=ENOSPC", "error=EIO", "retval=0"}, refused},
    {"update", "pwrite64", "1", {"error=EINTR"}, good},
    {"update", "pwrite64", "2", {"error=ENOSPC"}, refused},
    {"update", "clone", "1", {"error=EAGAIN", "error=ENOMEM"}, good},
    {"update", "wait4", "1", {"error=EINTR"}, good},
    {"update", "poll", "1", {"error=EINTR", "error=ENOMEM", "retval=0"}, good},
    {"update", "sendto", "1", {"error=ENOBUFS", "error=ENETDOWN", "retval=10"}, refused},
    {"update", "sendto", "9", {"error=ENOBUFS", "retval=10"}, refused},
    // The log, in its file: a line is lost.
    {"read", "write", "1", {"error=ENOSPC", "error=EIO", "error=EINTR", "error=EAGAIN", "error=EFBIG"}, good},
    {"read", "write", "1+", {"error=ENOSPC", "error=EIO"}, good},
    {"read", "write", "1", {"retval=0", "retval=1"}, good},
    {"update", "write", "1+", {"error=ENOSPC", "error=EPIPE"}, good},
};

class SystemCalls : public FaultsTest {
protected:
    SystemCalls() { cards_may_refuse = true; } // a step of a picture, a read-back or an update is left out

    void SetUp() override
    {
        arguments = {"-f"};
        FaultsTest::SetUp();
        const std::string image = file("small.bin", content(3, 3000));
        const auto at_work = [&](const std::string& name) { return picture_payload(small_width, small_height, name); };
        jobs["greeting"] = {.code = command::greeting};
        jobs["read"] = {.code = command::read, .slot = 2, .len = 16};
        jobs["plain"] = {.code = command::write, .slot = 2, .payload = {1, 2}};
        jobs["write"] = {.code = command::write_ack, .slot = 2, .payload = {1, 2}};
        jobs["unwaited"] = {.code = command::write_ack, .payload = {1, 2}};
        jobs["put"] = {.code = command::file_write, .payload = at_work(picture)};
        jobs["get"] = {.code = command::file_read, .payload = at_work(in_folder("copy"))};
        jobs["update"] = {.code = command::update, .slot = 3, .payload = update_payload(0x1A, image)};
    }

    void play(const row& r, const char* fault)
    {
        injection faulty(d->pid(), r.call, std::string(fault) + ":when=" + r.when);
        ASSERT_TRUE(faulty.is_attached());
        const uint64_t ticks = processor_ticks(d->pid());
        const auto start = std::chrono::steady_clock::now();
        const results got = results_of(jobs.at(r.job));
        EXPECT_LE(std::chrono::steady_clock::now() - start, most_time);
        EXPECT_LE(processor_ticks(d->pid()) - ticks, most_ticks);
        EXPECT_TRUE(faulty.end()) << "no such call was made";
        EXPECT_TRUE(got == r.expected || got == r.or_else) << testing::PrintToString(got);
        ASSERT_EQ(fault_in_service(), "");
    }

    std::map<std::string, command_fields> jobs;
};

} // namespace

TEST_F(SystemCalls, ThatFailOnceAreSurvivedAndAnswered)
{
    size_t cases = 0;
    for (const row& r : rows) {
        for (const char* const fault : r.faults) {
            SCOPED_TRACE(std::string(r.job) + ": " + r.call + " " + r.when + " " + fault);
            play(r, fault);
            if (HasFailure()) { return; }
            ++cases;
        }
    }
    std::printf("%zu cases\n", cases);
}

// What a row is judged by can fail: no thread but the status one renames while a register is read.
TEST_F(SystemCalls, OfTheStatusThreadAloneDoNotCount)
{
    injection faulty(d->pid(), "rename", "error=EACCES:when=1+");
    ASSERT_TRUE(faulty.is_attached());
    EXPECT_EQ(results_of(jobs.at("read")), good);
    pause_ms(100); // some of its rounds, which are short here
    EXPECT_FALSE(faulty.end());
    EXPECT_TRUE(was_injected(""));
    ASSERT_EQ(fault_in_service(), "");
}

// Starts under strace, which counts from the program's own start: each call of the kind fails once, from the first to
// the last.
TEST_F(SystemCalls, ThatFailAtTheStartAreSurvived)
{
    const std::map<std::string, std::vector<const char*>> starts = {
        {"socket", {"EMFILE", "ENOBUFS", "EPERM"}},
        {"bind", {"ENODEV", "EADDRINUSE", "EACCES"}},
        {"setsockopt", {"EPERM", "ENOMEM"}},
        {"ioctl", {"EPERM", "ENODEV"}},
        {"mkdir", {"ENOSPC", "EACCES"}},
        {"chmod", {"EPERM"}},
        {"fchmod", {"EPERM", "EROFS"}},
        {"connect", {"EACCES", "EAGAIN"}},
        {"unlink", {"EACCES", "EROFS"}},
        {"flock", {"EINTR", "ENOLCK", "EAGAIN"}},
        {"clone", {"EAGAIN", "ENOMEM"}},
        {"clone3", {"EAGAIN", "ENOMEM"}},
        {"wait4", {"EINTR", "ECHILD"}},
        {"sigaltstack", {"ENOMEM"}},
        {"sched_setaffinity", {"EPERM"}},
        {"setitimer", {"EINVAL"}},
        {"clock_nanosleep", {"EINTR"}},
    };
    kill_daemon();
    size_t cases = 0;
    for (const auto& [call, errors] : starts) {
        for (const char* const error : errors) {
            for (int n = 1; n < most_calls; ++n) {
                SCOPED_TRACE(call + " " + std::to_string(n) + " " + error);
                const std::string fault = call + ":error=" + error + ":when=" + std::to_string(n);
                start_with_log(faults.setup(), injection_at_start(call, fault));
                judge_start();
                if (HasFailure()) { return; }
                if (!was_injected(status_tid)) { break; }
                ++cases;
            }
        }
    }
    std::printf("%zu cases\n", cases);
}

// Commands that come meanwhile wait, or are answered; nothing spins.
TEST_F(SystemCalls, ThatGoOnFailingSpinNothing)
{
    const row lasting[] = {
        {"read", "recvfrom", "1+", {"error=ENETDOWN", "error=ENOBUFS", "error=EBADF", "error=ENOMEM"}, {}},
        {"read", "sendto", "1+", {"error=EAGAIN", "error=ENOBUFS", "error=ENETDOWN"}, {}},
        {"put", "sendto", "1+", {"error=EAGAIN", "error=ENOBUFS"}, {}},
        {"put", "openat", "1+", {"error=EMFILE"}, {}},
        {"get", "pwrite64", "1+", {"error=ENOSPC"}, {}},
        {"update", "write", "1+", {"error=ENOSPC"}, {}},
    };
    for (const row& r : lasting) {
        for (const char* const fault : r.faults) {
            SCOPED_TRACE(std::string(r.job) + ": " + r.call + " " + fault);
            injection faulty(d->pid(), r.call, std::string(fault) + ":when=1+");
            ASSERT_TRUE(faulty.is_attached());
            const uint64_t ticks = processor_ticks(d->pid());
            client->tell(jobs.at(r.job));
            pause_ms(lasting_ms);
            EXPECT_LE(processor_ticks(d->pid()) - ticks, most_lasting_ticks);
            EXPECT_TRUE(faulty.end()) << "no such call was made";
            ASSERT_TRUE(comes_true([&] { return conversation().is_greeted(milliseconds{200}); }));
            ASSERT_EQ(fault_in_service(), "");
            while (!client->receive(milliseconds{0}).empty()) {}
        }
    }
}
