// How the daemon is doing, as the file says that it writes each second: once, or each second with rates.
#include "rvkctl/status_view.h"

#include "base/board.h"
#include "base/clock.h"
#include "base/fd.h"
#include "rvkctl/commands.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

namespace rvk::ctl {
namespace {

constexpr double age_max_s = 3; // ours: the daemon writes once a second
constexpr std::chrono::milliseconds job_wait{
    5000};                                      // ours: by then it has written what it knew before, busy as it may be
constexpr uint64_t job_look_ms = 50;            // ours
constexpr std::chrono::seconds watch_period{1}; // as often as the daemon writes
constexpr off_t file_bytes_max = 1 << 20;       // ours: far above what the daemon writes
constexpr char clear_screen[] = "\033[H\033[J";
constexpr char kept_log[] = "/var/log/rvk_end_1.txt"; // of the last end, as the unit's keep-log names it

std::string status_path() { return std::string(status_folder()) + "/" + status_json_name; }

std::string text_of(const std::string& path)
{
    const unique_fd file = open_regular(path.c_str(), O_RDONLY);
    if (!file) {
        throw failure{errno == EACCES ? problem::no_permission : problem::no_status,
                      "no status in " + path + " (" + strerror(errno) +
                          "): does rvkd run, and does RVK_STATUS_DIR name the folder that it has?"};
    }
    std::vector<uint8_t> bytes(static_cast<size_t>(std::clamp<off_t>(size_of(file), 0, file_bytes_max)));
    const size_t count = read_full(file, bytes);
    return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count)};
}

// Why figures of that age say nothing of now; problem::none when they do.
failure judge_age(const status_view& now)
{
    if (now.age_s < 0) {
        return {problem::old_status, "the figures in " + status_path() +
                                         " are from before the machine's last start: rvkd has not run since"};
    }
    if (now.age_s <= age_max_s) { return {problem::none, {}}; }
    return {problem::old_status,
            format("the figures in %s are %.1f s old, and rvkd writes them each second: has it ended, or does a "
                   "real-time process keep it from the processors?",
                   status_path().c_str(), now.age_s)};
}

// Fills what there is to say of now. Result: the view, none when there is no status.
std::optional<status_view> look(const settings& used, outcome& run, const std::optional<status_view>& before)
{
    const std::string log = access(kept_log, F_OK) == 0 ? kept_log : "";
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
        line.answer += terminal ? "" : "\n";
        if (first.what == problem::none) { first = line.failed; }
        if (terminal) { static_cast<void>(write_out(clear_screen)); } // what follows fails likewise
        say(line, used.json);
        next = std::max(next + watch_period, std::chrono::steady_clock::now()); // not all at once after a stop
        pause_until(next);
    }
    return first;
}

// The figures of a board's daemon, where they say something of now.
std::optional<nlohmann::ordered_json> fresh_figures(int board)
{
    status_view now = read_status();
    if (judge_age(now).what != problem::none || now.figures.at("board") != board) { return std::nullopt; }
    return std::move(now.figures);
}

// Calls `look`, which may find no figures, or not those of this version. Result: what it gives, or nothing.
template <typename T, typename Look>
T if_there(Look look)
{
    try {
        return look();
    } catch (const failure&) {
    } catch (const nlohmann::json::exception&) {
    }
    return {};
}

} // namespace

status_view read_status()
{
    const std::string path = status_path();
    auto figures = nlohmann::ordered_json::parse(text_of(path), nullptr, false);
    if (!figures.is_object() || !figures.value("boot_ms", nlohmann::ordered_json()).is_number_unsigned() ||
        !figures.value("links", nlohmann::ordered_json()).is_array()) {
        throw failure{problem::no_status, path + " is not a status of this program's version: which rvkd wrote it?"};
    }
    const double age_ms = static_cast<double>(boot_ms()) - figures.at("boot_ms").get<double>();
    return {std::move(figures), age_ms / 1e3};
}

std::string why_unreached(int board)
{
    return if_there<std::string>([&]() -> std::string {
        const auto figures = fresh_figures(board);
        if (!figures || figures->at("endpoint") != 0) { return {}; }
        return format("; rvkd runs (process %d), but has no endpoint in its folder: its log says why, restart it",
                      figures->at("pid").get<int>());
    });
}

std::optional<job_figures> figures_of_job(const char* job, int board, uint32_t requester, uint16_t number)
{
    const auto end = std::chrono::steady_clock::now() + job_wait;
    return if_there<std::optional<job_figures>>([&]() -> std::optional<job_figures> {
        while (!interrupted() && std::chrono::steady_clock::now() < end) {
            const auto figures = read_status().figures;
            if (figures.at("board") == board && figures.at("last_requester").at(job) == requester &&
                figures.at("last_number").at(job) == number) {
                return job_figures{figures.at("last_steps").at(job), figures.at("last_unanswered").at(job)};
            }
            pause_ms(job_look_ms);
        }
        return std::nullopt;
    });
}

std::string transfer_text()
{
    return if_there<std::string>([] { return transfer_text(read_status().figures); });
}

void run_status(const settings& used, bool watching, outcome& run)
{
    run.facts["status_file"] = status_path();
    if (!watching) {
        static_cast<void>(look(used, run, std::nullopt));
        return;
    }
    accept_interrupt();
    const failure first = watch(used, run.command);
    run.told = true;
    if (first.what != problem::none) { throw failure{first.what, "at first: " + first.text}; }
}

} // namespace rvk::ctl
