// Shows how the daemon is doing: once, or each second with rates.
#include "rvkctl/commands.h"

#include "rvkctl/interrupt.h"
#include "rvkctl/status_view.h"

#include <chrono>
#include <unistd.h>

namespace rvk::ctl {
namespace {

constexpr std::chrono::seconds watch_period{1}; // as often as the daemon writes
constexpr char clear_screen[] = "\033[H\033[J";

// Fills what there is to say of now. Result: the view, none when there is no status.
std::optional<status_view> look(outcome& run, const std::optional<status_view>& before)
{
    try {
        const status_view now = read_status();
        run.facts["age_s"] = now.age_s;
        run.facts["status"] = now.figures;
        run.failed = judge_age(now);
        run.answer = status_table(now, before);
        return now;
    } catch (const failure& failed) {
        run.failed = failed;
    } catch (const nlohmann::json::exception& error) { // members that are missing or no figures
        run.failed = {problem::no_status,
                      status_path() + " is not a status of this program's version (" + error.what() + ")"};
    }
    return std::nullopt;
}

// Result: the first failure of all looks; status that was bad once makes the whole watch so.
failure watch(bool json, const std::string& command)
{
    const bool terminal = !json && isatty(STDOUT_FILENO) == 1;
    failure first{problem::none, {}};
    std::optional<status_view> before;
    auto next = std::chrono::steady_clock::now();
    while (!interrupted()) {
        outcome line;
        line.command = command;
        line.one_line = true;
        line.facts["status_file"] = status_path();
        before = look(line, before);
        line.answer = (terminal ? clear_screen : "") + line.answer + (terminal ? "" : "\n");
        if (first.what == problem::none) { first = line.failed; }
        say(line, json);
        pause_until(next += watch_period);
    }
    return first;
}

} // namespace

void run_status(const settings& used, const status_options& options, outcome& run)
{
    run.facts["status_file"] = status_path();
    if (!options.watch) {
        static_cast<void>(look(run, std::nullopt));
        return;
    }
    interrupt_guard until_interrupted;
    until_interrupted.accept();
    const failure first = watch(used.json, run.command);
    run.told = true;
    if (first.what != problem::none) { throw failure{first.what, "at first: " + first.text}; }
}

} // namespace rvk::ctl
