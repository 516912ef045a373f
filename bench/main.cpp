// rvk-bench: what the daemon's ways cost beside the bare system calls that do the same work, as a table in Markdown.
// Run by scripts/bench; works only on the bench, whose cables and folders it needs.
#include "harness.h"
#include "processes.h"
#include "rows.h"

#include <CLI/CLI.hpp>
#include <array>
#include <csignal>
#include <cstdlib>
#include <map>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

namespace rvk::bench {
namespace {

struct row {
    const char* name;
    void (*run)(const settings& chosen);
};

constexpr std::array rows{
    row{"plain-write", plain_write_row},
    row{"instructions", instructions_row},
    row{"read", read_row},
    row{"messaging", messaging_row},
    row{"acknowledged", acknowledged_row},
    row{"queue", queue_row},
    row{"pool", pool_row},
    row{"idle", idle_row},
    row{"picture", picture_row},
    row{"picture-job", picture_job_row},
    row{"read-back", read_back_row},
    row{"firmware", firmware_row},
    row{"start", start_row},
    row{"memory", memory_row},
    row{"bus-write", bus_write_row},
    row{"bus-read", bus_read_row},
    row{"load-picture", load_picture_row},
};

constexpr unsigned row_seconds = 600; // ours: a lost reply would make a bare loop wait for ever

bool is_chosen(const std::vector<std::string>& only, const char* name)
{
    return only.empty() || std::find(only.begin(), only.end(), name) != only.end();
}

bool run_row(const row& r, const settings& chosen)
{
    const pid_t process = fork();
    if (process == 0) {
        alarm(row_seconds);
        r.run(chosen);
        std::fflush(stdout);
        std::_Exit(0);
    }
    int status = 0;
    waitpid(process, &status, 0);
    if (status == 0) { return true; }
    std::fprintf(stderr, "rvk-bench: %s: no figure (%s %d)\n", r.name, WIFSIGNALED(status) ? "signal" : "status",
                 WIFSIGNALED(status) ? WTERMSIG(status) : WEXITSTATUS(status));
    return false;
}

} // namespace
} // namespace rvk::bench

int main(int argc, char** argv)
{
    using namespace rvk::bench;
    settings chosen{.rounds = 15};
    std::vector<std::string> only;
    std::string under_callgrind;
    CLI::App app{
        "Measures the daemon's ways beside the bare system calls that do the same work, in rounds by turns on\n"
        "one processor, and prints medians, their ratio and the goal. Run it by scripts/bench."};
    app.add_option("--rounds", chosen.rounds, "rounds of each side, in turn")->check(CLI::Range(1, 1000));
    std::vector<std::string> names;
    for (const row& r : rows) { names.emplace_back(r.name); }
    app.add_option("--only", only, "rows to measure; all without it")->check(CLI::IsMember(names));
    app.add_option("--under-callgrind", under_callgrind, "")->group("");
    CLI11_PARSE(app, argc, argv);
    if (getenv("RVK_BENCH") == nullptr || access("/run/rvk-bench", F_OK) != 0) {
        fail("it opens links and starts rvkd: run it by scripts/bench, inside scripts/in-bench");
    }
    if (!under_callgrind.empty()) {
        count_instructions_of(under_callgrind.c_str());
        return 0;
    }
    print_table_head();
    bool complete = true;
    for (const row& r : rows) {
        if (is_chosen(only, r.name)) { complete = run_row(r, chosen) && complete; }
    }
    return complete ? 0 : 1;
}
