#include "rvkctl/outcome.h"

#include "base/clock.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <unistd.h>
#include <utility>

namespace rvk::ctl {
namespace {

constexpr const char* status_meanings[] = {"done", "the daemon or the card said no", "wrong usage", "no answer"};

std::string object_text(const outcome& run, exit_status status)
{
    nlohmann::ordered_json object;
    object["format_version"] = 1;
    object["command"] = run.command.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(run.command);
    object["exit_status"] = static_cast<int>(status);
    object["exit_status_meaning"] = status_meanings[status];
    if (run.failed.what != problem::none) {
        object["error"] = {{"kind", name_of(run.failed.what)}, {"text", run.failed.text}};
    }
    object.update(run.facts);
    // A file's name may be any bytes.
    return object.dump(run.one_line ? -1 : 2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

using std::chrono::steady_clock;

constexpr std::chrono::milliseconds pause_step{250};
constexpr std::chrono::seconds show_interval{1};
constexpr char wipe_line[] = "\r\033[K";

volatile sig_atomic_t signal_came = 0;
bool accepted = false;
const auto started = steady_clock::now();
auto shown = started; // the line that show_life() shows
bool visible = false;

void note(int signal) { signal_came = signal; }

} // namespace

void say(const outcome& run, bool json)
{
    if (std::exchange(visible, false)) { fputs(wipe_line, stderr); }
    const auto complain = [&run] {
        const bool unheard = run.failed.what == problem::io_error && interrupted(); // a pipe whose reader went
        if (run.failed.what == problem::none || unheard) { return; }
        fprintf(stderr, "rvkctl: %s\n", printable_lines(run.failed.text).c_str());
    };
    try {
        if (!run.told) { write_out(json ? object_text(run, status_of(run.failed.what)) : printable_lines(run.answer)); }
    } catch (const failure&) {
        complain();
        throw;
    }
    complain();
}

int present(const outcome& run, bool json)
{
    const exit_status status = status_of(run.failed.what);
    try {
        say(run, json);
    } catch (const failure& unwritten) {
        if (!interrupted()) { fprintf(stderr, "rvkctl: %s\n", unwritten.text.c_str()); } // else nobody reads
        return status == exit_done ? status_of(unwritten.what) : status;
    }
    return status;
}

void note_result(int32_t result, nlohmann::ordered_json& facts)
{
    facts["result"] = result;
    facts["result_meaning"] = result == 0    ? "success"
                              : result == -1 ? "failure"
                                             : "a result this program does not know";
}

void catch_signals()
{
    struct sigaction once {};
    struct sigaction before {};
    once.sa_handler = note;
    once.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE}) {
        sigaction(signal, nullptr, &before);
        if (before.sa_handler != SIG_IGN) { sigaction(signal, &once, nullptr); } // nohup's stays ignored
    }
}

void end_by_signal()
{
    const int signal = signal_came;
    if (signal != 0 && (!accepted || signal == SIGPIPE)) { static_cast<void>(raise(signal)); }
}

void accept_interrupt() { accepted = true; }

bool interrupted() { return signal_came != 0; }

void pause_until(std::chrono::steady_clock::time_point end)
{
    for (auto now = steady_clock::now(); now < end && !interrupted(); now = steady_clock::now()) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - now);
        pause_ms(static_cast<uint64_t>(std::min(left, pause_step).count()));
    }
}

void show_life(const std::function<std::string()>& doing)
{
    const auto now = steady_clock::now();
    if (now - shown < show_interval || isatty(STDERR_FILENO) != 1) { return; }
    shown = now;
    visible = true;
    const std::string what = doing ? ", " + doing() : "";
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - started).count();
    fprintf(stderr, "%srvkctl: %lld s%s", wipe_line, static_cast<long long>(seconds), what.c_str());
    fflush(stderr);
}

} // namespace rvk::ctl
