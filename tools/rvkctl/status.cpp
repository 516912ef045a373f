// Shows how the daemon is doing: once, or each second with rates.
#include "rvkctl/commands.h"

#include "command/values.h"
#include "rvkctl/interrupt.h"
#include "rvkctl/status_view.h"

#include <algorithm>
#include <chrono>
#include <unistd.h>

namespace rvk::ctl {
namespace {

constexpr std::chrono::seconds watch_period{1}; // as often as the daemon writes
constexpr char clear_screen[] = "\033[H\033[J";

// Fills what there is to say of now. Result: the view, none when there is no status.
std::optional<status_view> look(const settings& used, outcome& run, const std::optional<status_view>& before)
{
    const std::string log = kept_log();
    try {
        const status_view now = read_status();
        if (const uint64_t board = now.figures.at("board"); board != used.board) {
            throw failure{problem::no_status,
                          format("the figures in %s are of board %d, not of %d: see --board and RVK_STATUS_DIR",
                                 status_path().c_str(), static_cast<int>(board), used.board)};
        }
        if (now.age_s >= 0) { run.facts["age_s"] = now.age_s; }
        run.facts["status"] = now.figures;
        run.failed = judge_age(now);
        run.answer = status_table(now, before);
        if (!log.empty()) {
            run.facts["log_of_last_end"] = log;
            run.answer += "log of the last end: " + log + "\n";
        }
        return now;
    } catch (const failure& failed) {
        run.failed = failed;
        if (!log.empty()) { run.failed.text += "; log of the last end: " + log; }
    } catch (const nlohmann::json::exception& error) { // members that are missing or no figures
        run.failed = {problem::no_status,
                      status_path() + " is not a status of this program's version (" + error.what() + ")"};
    }
    return std::nullopt;
}

// Result: the first failure of all looks; status that was bad once makes the whole watch so.
failure watch(const settings& used, const std::string& command)
{
    const bool terminal = !used.json && isatty(STDOUT_FILENO) == 1;
    failure first{problem::none, {}};
    std::optional<status_view> before;
    auto next = std::chrono::steady_clock::now();
    while (!interrupted()) {
        outcome line;
        line.command = command;
        line.one_line = true;
        line.facts["status_file"] = status_path();
        before = look(used, line, before);
        line.answer = (terminal ? clear_screen : "") + line.answer + (terminal ? "" : "\n");
        if (first.what == problem::none) { first = line.failed; }
        say(line, used.json);
        next = std::max(next + watch_period, std::chrono::steady_clock::now()); // not all at once after a stop
        pause_until(next);
    }
    return first;
}

} // namespace

void run_status(const settings& used, const status_options& options, outcome& run)
{
    run.facts["status_file"] = status_path();
    if (!options.watch) {
        static_cast<void>(look(used, run, std::nullopt));
        return;
    }
    interrupt_guard until_interrupted;
    until_interrupted.accept();
    const failure first = watch(used, run.command);
    run.told = true;
    if (first.what != problem::none) { throw failure{first.what, "at first: " + first.text}; }
}

} // namespace rvk::ctl
