// How the daemon is doing, as the file says that it writes each second: once, or each second with rates. What is zero
// is left out, so that what is worth a look stands alone.
#include "rvkctl/commands.h"

#include "base/board.h"
#include "base/clock.h"
#include "base/fd.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>
#include <vector>

namespace rvk::ctl {
namespace {

using json = nlohmann::ordered_json;

constexpr double age_max_s = 3;                 // ours: the daemon writes once a second
constexpr std::chrono::seconds job_wait{5};     // ours: by then it has written what it knew before, busy as it may be
constexpr uint64_t job_look_ms = 50;            // ours
constexpr std::chrono::seconds watch_period{1}; // as often as the daemon writes
constexpr off_t file_bytes_max = 1 << 20;       // ours: far above what the daemon writes
constexpr char clear_screen[] = "\033[H\033[J";
constexpr char kept_log[] = "/var/log/rvk_end_1.txt"; // of the last end, as the unit's keep-log names it

// The daemon's figures as its status file has them. Needs no daemon that answers, and no privilege: everybody may read
// the file.
struct status_view {
    json figures;
    double age_s = 0; // by the clock that both use, which nobody sets; negative: before the machine's last start
};

// A figure now and, where rates are shown, as it was in an earlier view.
struct pair_of_views {
    const json* now;
    const json* before; // null: no rates
    double seconds;     // between the two

    pair_of_views member(const std::string& name) const
    {
        static const json absent;
        const json* then = before != nullptr && before->contains(name) ? &before->at(name) : nullptr;
        return {now->contains(name) ? &now->at(name) : &absent, then, seconds};
    }
};

uint64_t count_in(const json& value) { return value.is_number_unsigned() ? value.get<uint64_t>() : 0; }

std::string with_rate(const pair_of_views& figure)
{
    const uint64_t now = count_in(*figure.now);
    if (figure.before == nullptr || figure.seconds <= 0) { return format("%" PRIu64, now); }
    const uint64_t then = count_in(*figure.before);
    if (now <= then) { return format("%" PRIu64, now); }
    return format("%" PRIu64 " (%.1f/s)", now, static_cast<double>(now - then) / figure.seconds);
}

std::string row(std::string_view name, const std::string& text)
{
    return format("  %-16.*s  %s\n", static_cast<int>(name.size()), name.data(), text.c_str());
}

// "read 3, write 1"; "none" when all are zero.
std::string kinds(const pair_of_views& family)
{
    std::string out;
    for (const auto& [key, value] : family.now->items()) {
        if (count_in(value) == 0) { continue; }
        out += (out.empty() ? "" : ", ") + key + " " + with_rate(family.member(key));
    }
    return out.empty() ? "none" : out;
}

// A count, or one of each kind.
std::string figure(const pair_of_views& of, const char* name)
{
    const pair_of_views found = of.member(name);
    return found.now->is_object() ? kinds(found) : with_rate(found);
}

std::string duration_text(uint64_t ms)
{
    const uint64_t s = ms / 1000;
    return format("%" PRIu64 " d %02d:%02d:%02d", s / 86'400, static_cast<int>(s / 3600 % 24),
                  static_cast<int>(s / 60 % 60), static_cast<int>(s % 60));
}

std::string us_text(uint64_t us)
{
    return us < 1000 ? format("%" PRIu64 " us", us) : format("%.1f ms", static_cast<double>(us) / 1e3);
}

std::string pool_text(const json& figures)
{
    uint64_t in_use = 0, made = 0;
    for (const auto& [size, count] : figures.at("pool_in_use").items()) { in_use += count_in(count); }
    for (const auto& [size, count] : figures.at("pool_made").items()) { made += count_in(count); }
    return format("%" PRIu64 " of %" PRIu64 " blocks in use", in_use, made);
}

// "1200, half within 64 us, 99 % within 128 us, all within 512 us"
std::string answers_text(const json& answers)
{
    const uint64_t longer = count_in(answers.value("longer", json(0u)));
    uint64_t all = longer;
    for (const auto& [bound, count] : answers.at("at_most_us").items()) { all += count_in(count); }
    if (all == 0) { return "none"; }
    const auto within = [&](double share) {
        uint64_t so_far = 0;
        for (const auto& [bound, count] : answers.at("at_most_us").items()) {
            so_far += count_in(count);
            if (static_cast<double>(so_far) < share * static_cast<double>(all)) { continue; }
            return "within " + us_text(strtoull(bound.c_str(), nullptr, 10));
        }
        return std::string("more than 512 ms");
    };
    return format("%" PRIu64 ", half %s, 99 %% %s, all %s", all, within(0.5).c_str(), within(0.99).c_str(),
                  within(1).c_str());
}

bool is_used(const json& link)
{
    return count_in(link.at("open")) != 0 || count_in(link.at("send_failed").value("not_open", json(0u))) != 0;
}

std::string link_lines(const pair_of_views& link)
{
    const json& now = *link.now;
    const auto way = [&link](const char* direction) {
        return figure(link.member("frames"), direction) + " frames, " + figure(link.member("bytes"), direction) +
               " bytes";
    };
    return format("%s, %s\n", now.value("interface", std::string("?")).c_str(),
                  count_in(now.at("open")) != 0 ? "open" : "NOT OPEN") +
           row("sent", way("sent")) + row("received", way("received")) + row("dropped", figure(link, "dropped")) +
           row("lost in kernel", figure(link, "kernel_dropped")) + row("send failures", figure(link, "send_failed")) +
           row("resends", figure(link, "resends")) + row("given up", figure(link, "given_up")) +
           row("refused by card", figure(link, "wrong_acks")) + row("waiting", kinds({&now.at("queued"), nullptr, 0})) +
           row("answers", answers_text(now.at("answers"))) +
           row("check passes", "at most " + us_text(count_in(now.at("check_gap_us"))) + " apart, since the start " +
                                   us_text(count_in(now.at("check_gap_most_us"))));
}

// What keeps the daemon from its work, in words; empty when nothing does.
std::string illness(const json& figures)
{
    std::string out;
    const auto add = [&out](const std::string& what) { out += (out.empty() ? "" : "; ") + what; };
    if (count_in(figures.at("endpoint")) == 0) { add("no requester is heard, its endpoint is gone: restart it"); }
    const json& link = figures.at("links").at(0);
    if (count_in(link.at("open")) == 0) {
        add(link.value("interface", std::string("?")) + " is not open, no card is reached");
    }
    if (count_in(link.at("check_gap_us")) > 1'000'000) {
        add("check passes are more than 1 s apart: who takes the processors?");
    }
    return out;
}

std::string transfer_text(const json& figures)
{
    std::string out;
    for (const auto& [kind, total] : figures.at("transfer_total_bytes").items()) {
        const uint64_t all = count_in(total);
        if (all == 0) { continue; }
        const uint64_t done = count_in(figures.at("transfer_bytes").value(kind, json(0u)));
        out += format("%s%s %" PRIu64 " of %s (%d %%)", out.empty() ? "" : ", ", kind.c_str(), done,
                      byte_count(all).c_str(),
                      static_cast<int>(100.0 * static_cast<double>(done) / static_cast<double>(all)));
    }
    return out;
}

// before: an earlier view of the same daemon, to show rates beside what only grows.
std::string status_table(const status_view& now, const std::optional<status_view>& before)
{
    const bool same = before && before->figures.at("pid") == now.figures.at("pid");
    const double seconds =
        same ? (now.figures.at("boot_ms").get<double>() - before->figures.at("boot_ms").get<double>()) / 1e3 : 0;
    const pair_of_views all{&now.figures, same ? &before->figures : nullptr, seconds};
    const json& figures = now.figures;
    const std::string ill = illness(figures), running = transfer_text(figures);
    std::string out = (ill.empty() ? "well\n" : "NOT WELL: " + ill + "\n") +
                      format("rvkd of board %" PRIu64 " (process %" PRIu64 "), up %s; figures %.1f s old\n",
                             count_in(figures.at("board")), count_in(figures.at("pid")),
                             duration_text(count_in(figures.at("up_ms"))).c_str(), now.age_s);
    out += row("commands", figure(all, "commands")) + row("refused", figure(all, "refused")) +
           row("dropped", figure(all, "dropped_in_update") + " during an update") +
           row("jobs done", figure(all, "jobs_done")) + row("jobs failed", figure(all, "jobs_failed")) +
           row("transfer", running.empty() ? "none" : running) +
           row("file job", figure(all, "steps") + " exchanges with the card, " + figure(all, "steps_unanswered") +
                               " not answered") +
           row("answers lost", figure(all, "messages_dropped") + ", to requesters that are gone or do not read") +
           row("pool", pool_text(figures));
    const pair_of_views links = all.member("links");
    for (size_t i = 0; i < links.now->size(); ++i) {
        const json* then = links.before != nullptr && i < links.before->size() ? &links.before->at(i) : nullptr;
        if (is_used(links.now->at(i))) { out += link_lines({&links.now->at(i), then, seconds}); }
    }
    return out;
}

std::string status_path() { return std::string(status_folder()) + "/" + status_json_name; }

std::string text_of(const std::string& path)
{
    const unique_fd file = open_regular(path.c_str(), O_RDONLY);
    if (!file) {
        fail(errno == EACCES ? problem::no_permission : problem::no_status,
             "no status in %s (%s): does rvkd run, and does RVK_STATUS_DIR name the folder that it has?", path.c_str(),
             strerror(errno));
    }
    std::string text(static_cast<size_t>(std::clamp<off_t>(size_of(file), 0, file_bytes_max)), '\0');
    text.resize(read_full(file, {reinterpret_cast<uint8_t*>(text.data()), text.size()}));
    return text;
}

// Throws a failure when the file is not there or not the daemon's.
status_view read_status()
{
    const std::string path = status_path();
    json figures = json::parse(text_of(path), nullptr, false);
    if (!figures.is_object() || !figures.value("boot_ms", json()).is_number_unsigned() ||
        !figures.value("links", json()).is_array()) {
        fail(problem::no_status, "%s is not a status of this program's version: which rvkd wrote it?", path.c_str());
    }
    const double age_ms = static_cast<double>(boot_ms()) - figures.at("boot_ms").get<double>();
    return {std::move(figures), age_ms / 1e3};
}

// Why figures of that age say nothing of now; problem::none when they do.
failure judge_age(const status_view& now)
{
    if (now.age_s >= 0 && now.age_s <= age_max_s) { return {problem::none, {}}; }
    const std::string age = now.age_s < 0 ? "are from before the machine's last start: rvkd has not run since"
                                          : format("are %.1f s old, and rvkd writes them each second: has it ended, or "
                                                   "does a real-time process keep it from the processors?",
                                                   now.age_s);
    return {problem::old_status, "the figures in " + status_path() + " " + age};
}

// Fills what there is to say of now. Result: the view, none when there is no status.
std::optional<status_view> look(const settings& used, outcome& run, const std::optional<status_view>& before)
{
    const std::string log = access(kept_log, F_OK) == 0 ? kept_log : "";
    try {
        const status_view now = read_status();
        if (const uint64_t board = now.figures.at("board"); board != used.board) {
            fail(problem::no_status, "the figures in %s are of board %d, not of %d: see --board and RVK_STATUS_DIR",
                 status_path().c_str(), static_cast<int>(board), used.board);
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

// Fails in the end as the first look that did; status that was bad once makes the whole watch so.
void watch(const settings& used, outcome& run)
{
    accept_interrupt();
    run.told = true;
    const bool terminal = !used.json && isatty(STDOUT_FILENO) == 1;
    failure first{problem::none, {}};
    std::optional<status_view> before;
    auto next = std::chrono::steady_clock::now();
    while (!interrupted()) {
        outcome line{.command = run.command, .facts = run.facts, .one_line = true};
        before = look(used, line, before);
        line.answer += terminal ? "" : "\n";
        if (first.what == problem::none) { first = line.failed; }
        if (terminal) { fputs(clear_screen, stdout); }
        say(line, used.json);
        next = std::max(next + watch_period, std::chrono::steady_clock::now()); // not all at once after a stop
        pause_until(next);
    }
    if (first.what != problem::none) { fail(first.what, "at first: %s", first.text.c_str()); }
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

std::string why_unreached(int board)
{
    return if_there<std::string>([&]() -> std::string {
        const status_view now = read_status();
        const bool explains =
            judge_age(now).what == problem::none && now.figures.at("board") == board && now.figures.at("endpoint") == 0;
        if (!explains) { return {}; }
        return format("; rvkd runs (process %d), but has no endpoint in its folder: its log says why, restart it",
                      now.figures.at("pid").get<int>());
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
    if (watching) { return watch(used, run); }
    static_cast<void>(look(used, run, std::nullopt));
}

} // namespace rvk::ctl
