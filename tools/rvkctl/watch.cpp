// A read that is repeated: one line for each change, with its time. A read that fails does not end it, since who
// watches a register wants to see it come back.
#include "rvkctl/reading.h"

#include "command/values.h"
#include "rvkctl/interrupt.h"
#include "rvkctl/status_view.h"

#include <chrono>
#include <ctime>

namespace rvk::ctl {
namespace {

// Now, in local time: for a person, or with json as ISO 8601 has it.
std::string time_text(bool json)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char seconds[32], zone[8];
    strftime(seconds, sizeof seconds, json ? "%FT%T" : "%F %T", &local);
    strftime(zone, sizeof zone, "%z", &local);
    return format("%s.%03ld%s", seconds, now.tv_nsec / 1'000'000, json ? zone : "");
}

std::string pairs_text(std::span<const uint8_t> bytes)
{
    std::string out;
    for (size_t i = 0; i < bytes.size(); ++i) { out += format(i > 0 && i % 2 == 0 ? " %02x" : "%02x", bytes[i]); }
    return out;
}

class watcher {
public:
    watcher(session& with, const read_options& given, bool as_json, outcome& into)
        : talk(with), what(given), json(as_json), run(into)
    {
    }

    void read_all()
    {
        const repetition& repeat = *what.repeat;
        while (!interrupted() && (repeat.times == 0 || reads < repeat.times)) {
            if (reads > 0) { pause_until(begun + repeat.interval); }
            if (interrupted()) { return; }
            begun = std::chrono::steady_clock::now();
            outcome line{.command = run.command, .facts = run.facts, .answer = {}, .failed = {problem::none, {}}};
            read_one(line);
            if (interrupted()) { return; } // then a failure says nothing of the card
            ++reads;
            if (line.failed.what != problem::none && failures++ == 0) { first = line.failed.what; }
            if (is_news(line) || repeat.all) { tell(line); }
        }
    }

    // Throws what there is to say at the end.
    void conclude() const
    {
        if (failures == 0) { return; }
        throw failure{first, format("%llu of %llu reads failed", static_cast<unsigned long long>(failures),
                                    static_cast<unsigned long long>(reads))};
    }

private:
    void read_one(outcome& line)
    {
        try {
            const std::vector<uint8_t> data = read_card(talk, what, line.facts);
            line.answer = time_text(false) + "  " + pairs_text(data) + "\n";
            check_length(what, data);
        } catch (const failure& failed) {
            line.failed = failed;
            if (status_of(failed.what) == exit_no_answer) {
                line.failed.text += why_unreached(line.facts.value("board", -1));
            }
        }
        line.facts["time"] = time_text(true);
    }

    // Whether it is another value, or another failure, than the line before.
    bool is_news(const outcome& line)
    {
        const auto data = line.facts.find("data");
        std::string now =
            std::string(name_of(line.failed.what)) + (data == line.facts.end() ? "" : " " + data->get<std::string>());
        std::swap(now, last);
        return now != last;
    }

    void tell(outcome& line) const
    {
        if (line.failed.what != problem::none && !json) {
            line.failed.text = time_text(false) + "  " + line.failed.text;
        }
        line.one_line = true;
        say(line, json);
    }

    session& talk;
    const read_options& what;
    const bool json;
    outcome& run;
    std::chrono::steady_clock::time_point begun;
    uint64_t reads = 0, failures = 0;
    problem first = problem::none; // what the first of them failed for
    std::string last;
};

} // namespace

void watch_card(session& talk, const read_options& what, bool json, outcome& run)
{
    interrupt_guard until_interrupted;
    until_interrupted.accept(); // as orderly an end as any
    run.told = true;
    watcher all(talk, what, json, run);
    all.read_all();
    all.conclude();
}

} // namespace rvk::ctl
