// rvk-bench: what the daemon's ways cost beside the bare system calls that do the same work, as a table in Markdown.
// Run by scripts/bench; works only on the bench, whose cables and folders it needs.
#include "harness.h"
#include "main/log.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>

// The log sink: formats nothing, as the daemon's own does without its switches.
void rvk::log_print(const char*, const char*, int, const char*, ...) {}
bool rvk::console_write(int, const char*, size_t) { return true; }

namespace rvk::bench {
namespace {

constexpr struct {
    const char* name;
    void (*run)();
} subjects[]{
    {"plain-write", plain_write_row},
    {"instructions", instructions_row},
    {"read", [] { read_row(16); }},
    {"long-read", [] { read_row(1400); }},
    {"messages", messages_row},
    {"late", late_row},
    {"queue", queue_row},
    {"pool", pool_row},
    {"idle", idle_row},
    {"picture", picture_row},
    {"services", services_row},
    {"start", start_row},
    {"bus-write", bus_write_row},
    {"bus-read", bus_read_row},
    {"load-picture", load_picture_row},
};

constexpr unsigned subject_seconds = 600; // ours: a lost reply would make a bare loop wait for ever

bool run(const char* name, void (*rows)())
{
    const pid_t process = fork();
    require(process >= 0, "no process");
    if (process == 0) {
        alarm(subject_seconds);
        rows();
        std::fflush(stdout);
        std::_Exit(0);
    }
    int status = 0;
    waitpid(process, &status, 0);
    if (status != 0) { std::fprintf(stderr, "rvk-bench: %s: no figure (wait status %d)\n", name, status); }
    return status == 0;
}

} // namespace
} // namespace rvk::bench

int main(int argc, char** argv)
{
    using namespace rvk::bench;
    std::vector<std::string> only, names;
    std::string under_callgrind;
    CLI::App app{
        "Measures the daemon's ways beside the bare system calls that do the same work, in rounds by turns on\n"
        "one processor, and prints medians, the median ratio and the goal. Run it by scripts/bench."};
    for (const auto& subject : subjects) { names.emplace_back(subject.name); }
    app.add_option("--rounds", rounds, "rounds of each side, in turn [15]")->check(CLI::Range(1, 1000));
    app.add_option("--only", only, "subjects to measure; all without it")->check(CLI::IsMember(names));
    app.add_option("--under-callgrind", under_callgrind, "")->group("");
    CLI11_PARSE(app, argc, argv);
    require(getenv("RVK_BENCH") != nullptr && access("/run/rvk-bench", F_OK) == 0,
            "it opens links and starts rvkd: run it by scripts/bench, inside scripts/in-bench");
    if (!under_callgrind.empty()) { return count_instructions_of(under_callgrind), 0; }
    std::puts("| work | against | ours | bare | unit | ratio | goal | kept |\n|---|---|---|---|---|---|---|---|");
    std::fflush(stdout);
    bool complete = true;
    for (const auto& [name, rows] : subjects) {
        const bool chosen = only.empty() || std::find(only.begin(), only.end(), name) != only.end();
        complete = (!chosen || run(name, rows)) && complete;
    }
    return complete ? 0 : 1;
}
