// See the header.
#include "faults/injection.h"

#include <algorithm>
#include <csignal>
#include <sstream>

namespace rvk {
namespace {

constexpr char record[] = "/run/rvk-bench/strace";

bool all_traced(pid_t process, bool traced)
{
    const std::vector<thread_facts> threads = threads_of(process);
    return std::all_of(threads.begin(), threads.end(), [&](const thread_facts& t) {
        const std::string tracer = proc_field(std::to_string(process) + "/task/" + t.tid, "status", "TracerPid");
        return !tracer.empty() && (tracer != "0") == traced;
    });
}

std::vector<std::string> command_line(pid_t process, const std::string& call, const std::string& fault)
{
    return {"strace",
            "-f",
            "-q",
            "-o",
            record,
            "-p",
            std::to_string(process),
            "-e",
            "trace=" + call,
            "-e",
            "inject=" + call + ":" + fault};
}

} // namespace

injection::injection(pid_t daemon, const std::string& call, const std::string& fault)
    : traced(daemon), status_tid(status_thread_of(daemon)), strace(command_line(daemon, call, fault))
{
}

bool injection::is_attached() const
{
    return comes_true([&] { return all_traced(traced, true); });
}

bool injection::end()
{
    strace.signal(SIGTERM);
    static_cast<void>(strace.end());
    const bool let_go = comes_true([&] { return all_traced(traced, false); });
    return let_go && was_injected(status_tid);
}

std::vector<std::string> injection_at_start(const std::string& call, const std::string& fault)
{
    return {"strace", "-D", "-f", "-q", "-o", record, "-e", "trace=" + call, "-e", "inject=" + fault};
}

std::string status_thread_of(pid_t daemon)
{
    for (const thread_facts& t : threads_of(daemon)) {
        if (t.name == "rvk-status") { return t.tid; }
    }
    return "";
}

bool was_injected(const std::string& but_in)
{
    std::istringstream lines(file_text(record));
    for (std::string line; std::getline(lines, line);) { // each begins with the thread's id
        if (line.find("(INJECTED)") != std::string::npos && line.substr(0, line.find(' ')) != but_in) { return true; }
    }
    return false;
}

uint64_t processor_ticks(pid_t process)
{
    const std::string stat = file_text("/proc/" + std::to_string(process) + "/stat");
    unsigned long user = 0, kernel = 0;
    sscanf(stat.c_str() + stat.rfind(')'), ") %*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &user, &kernel);
    return user + kernel;
}

} // namespace rvk
