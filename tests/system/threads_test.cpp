// What the process is made of: its real-time threads, and what it costs while nothing happens.
#include "system/daemon.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <sched.h>
#include <unistd.h>

using namespace rvk;

namespace {

struct expected_thread {
    int policy, priority;
    bool pinned; // to processor 1, where there is one
};
const std::map<std::string, expected_thread> expected_threads = {
    {"rvkd", {SCHED_OTHER, 0, false}},       {"rvk-death", {SCHED_OTHER, 0, false}},
    {"rvk-signal", {SCHED_OTHER, 0, false}}, {"rvk-status", {SCHED_OTHER, 0, false}},
    {"rvk-recv", {SCHED_FIFO, 90, true}},    {"rvk-check", {SCHED_FIFO, 89, true}},
    {"rvk-ipc", {SCHED_FIFO, 88, false}},    {"rvk-file", {SCHED_FIFO, 95, false}},
};

uint64_t processor_ticks(pid_t pid)
{
    const std::string stat = file_text("/proc/" + std::to_string(pid) + "/stat");
    unsigned long user = 0, kernel = 0;
    sscanf(stat.c_str() + stat.rfind(')'), ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &kernel);
    return user + kernel;
}

} // namespace

TEST(Threads, HaveTheirNamesPrioritiesAndProcessors)
{
    daemon_process d;
    ASSERT_TRUE(conversation().is_greeted());
    std::map<std::string, thread_facts> found;
    ASSERT_TRUE(comes_true([&] {
        found.clear();
        for (const thread_facts& t : threads_of(d.pid())) { found[t.name] = t; }
        return std::all_of(expected_threads.begin(), expected_threads.end(),
                           [&](const auto& e) { return found.count(e.first) != 0; });
    }));
    const long processors = sysconf(_SC_NPROCESSORS_ONLN);
    for (const auto& [name, expected] : expected_threads) {
        SCOPED_TRACE(name);
        const thread_facts& t = found.at(name);
        EXPECT_EQ(t.policy, expected.policy);
        EXPECT_EQ(t.priority, expected.priority);
        const std::string allowed =
            proc_field(std::to_string(d.pid()) + "/task/" + t.tid, "status", "Cpus_allowed_list");
        if (expected.pinned && processors > 1) { EXPECT_EQ(allowed, "1"); }
        if (t.name == "rvk-ipc" || t.name == "rvk-file") { EXPECT_EQ(allowed == "3", processors > 3) << allowed; }
    }
    EXPECT_EQ(d.end_by(SIGTERM), 0);
}

TEST(Threads, AnIdleDaemonIsSmallAndQuiet)
{
    daemon_process d;
    ASSERT_TRUE(conversation().is_greeted());
    const int limit_kb = sanitized ? 200'000 : 6'000;
    int resident_kb = 0;
    // Whatever the start does with pictures, it ends.
    EXPECT_TRUE(comes_true(
        [&] {
            resident_kb = std::stoi(proc_field(std::to_string(d.pid()), "status", "VmRSS"));
            return resident_kb < limit_kb;
        },
        milliseconds{60'000}))
        << resident_kb << " kB";
    const uint64_t limit_ticks = sanitized ? 30 : 10; // of 200
    EXPECT_TRUE(comes_true(
        [&] {
            const uint64_t before = processor_ticks(d.pid());
            pause_ms(2000);
            return processor_ticks(d.pid()) - before < limit_ticks;
        },
        milliseconds{60'000}));
    EXPECT_EQ(d.end_by(SIGTERM), 0);
}
