// See the header.
#include "system/child.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <sys/wait.h>

namespace rvk {
namespace {

constexpr int killed = 1000;
constexpr milliseconds look{5};

std::vector<char*> pointers(const std::vector<std::string>& texts)
{
    std::vector<char*> out;
    for (const std::string& text : texts) { out.push_back(const_cast<char*>(text.c_str())); }
    out.push_back(nullptr);
    return out;
}

std::string name_of(const std::string& entry) { return entry.substr(0, entry.find('=') + 1); }

std::vector<std::string> merged_environment(const std::vector<std::string>& added)
{
    std::vector<std::string> out = added;
    for (char** entry = environ; *entry != nullptr; ++entry) {
        bool replaced = false;
        for (const std::string& own : added) { replaced = replaced || name_of(own) == name_of(*entry); }
        if (!replaced) { out.push_back(*entry); }
    }
    return out;
}

} // namespace

child::child(const std::vector<std::string>& command, const child_setup& setup)
{
    const std::vector<std::string> environment = merged_environment(setup.environment);
    const std::vector<char*> argv = pointers(command), envp = pointers(environment);
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) { abort(); }
    pipe_end.reset(ends[0]);
    const unique_fd writer{ends[1]};
    fcntl(ends[0], F_SETFL, O_NONBLOCK);
    process = fork();
    if (process != 0) { return; }
    dup2(writer.get(), STDOUT_FILENO);
    if (setup.before_exec != nullptr) { setup.before_exec(); }
    execvpe(argv[0], argv.data(), envp.data());
    _exit(126);
}

child::~child()
{
    if (process <= 0 || status != still_running) { return; }
    kill(process, SIGKILL);
    waitpid(process, nullptr, 0);
}

void child::signal(int number) const { kill(process, number); }

// False when the output has ended.
bool child::read_some(milliseconds wait)
{
    pollfd entry{pipe_end.get(), POLLIN, 0};
    if (poll(&entry, 1, static_cast<int>(wait.count())) <= 0) { return true; }
    char bytes[65536];
    const ssize_t got = read(pipe_end.get(), bytes, sizeof bytes);
    if (got > 0) { collected.append(bytes, static_cast<size_t>(got)); }
    return got > 0 || (got < 0 && (errno == EAGAIN || errno == EINTR));
}

bool child::shows(std::string_view text, milliseconds wait)
{
    const auto until = std::chrono::steady_clock::now() + wait;
    while (collected.find(text) == std::string::npos) {
        const bool late = std::chrono::steady_clock::now() > until; // looking through much output may take that long
        if (!read_some(look) || late) { return collected.find(text) != std::string::npos; }
    }
    return true;
}

int child::end(milliseconds wait, bool read_output)
{
    const auto until = std::chrono::steady_clock::now() + wait;
    bool open = read_output && pipe_end;
    while (status == still_running) {
        int raw = 0;
        if (waitpid(process, &raw, WNOHANG) == process) {
            status = WIFEXITED(raw) ? WEXITSTATUS(raw) : killed + WTERMSIG(raw);
            break;
        }
        if (std::chrono::steady_clock::now() > until) { return still_running; }
        if (open) { open = read_some(look); }
        if (!open) { pause_ms(static_cast<uint64_t>(look.count())); }
    }
    while (open && read_some(milliseconds{0})) {
        pollfd entry{pipe_end.get(), POLLIN, 0};
        if (poll(&entry, 1, 0) <= 0) { break; } // a grandchild may hold the other end open
    }
    return status;
}

void child::shrink_pipe() const { fcntl(pipe_end.get(), F_SETPIPE_SZ, 4096); }

std::string proc_field(const std::string& folder, const std::string& file, const std::string& key)
{
    std::ifstream in("/proc/" + folder + "/" + file);
    for (std::string line; std::getline(in, line);) {
        if (line.rfind(key + ":", 0) == 0) {
            const size_t value = line.find_first_not_of(" \t", key.size() + 1);
            return value == std::string::npos ? "" : line.substr(value);
        }
    }
    return "";
}

std::vector<thread_facts> threads_of(pid_t process)
{
    std::vector<thread_facts> out;
    std::error_code gone;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/" + std::to_string(process) + "/task", gone)) {
        thread_facts t;
        t.tid = entry.path().filename().string();
        const std::string stat = file_text(entry.path().string() + "/stat");
        const size_t name_from = stat.find('('), name_to = stat.rfind(')');
        if (name_from == std::string::npos || name_to == std::string::npos) { continue; }
        t.name = stat.substr(name_from + 1, name_to - name_from - 1);
        std::istringstream fields(stat.substr(name_to + 2)); // the third field is the first here
        std::string skipped;
        for (int field = 3; field < 40; ++field) { fields >> skipped; }
        fields >> t.priority >> t.policy;
        out.push_back(t);
    }
    return out;
}

signal_mask mask_of(const std::string& folder, const std::string& mask)
{
    return {std::strtoull(proc_field(folder, "status", mask).c_str(), nullptr, 16)};
}

std::string file_text(const std::string& path)
{
    std::ifstream in(path);
    std::ostringstream all;
    all << in.rdbuf();
    return all.str();
}

} // namespace rvk
