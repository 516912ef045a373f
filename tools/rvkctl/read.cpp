// Asks the daemon whether it is there; reads from a card and shows the bytes, once or again and again. A repeated read
// shows one line for each change, with its time; one that fails does not end it, since who watches a register wants to
// see it come back.
#include "rvkctl/commands.h"

#include "ap_msg/message.h"

#include <chrono>
#include <ctime>

namespace rvk::ctl {
namespace {

constexpr uint32_t interval_default_ms = 1000;

void check_usage(const read_options& what)
{
    if (what.repeat && !what.out_file.empty()) {
        fail(problem::wrong_usage, "--out and --repeat: a read that is repeated is shown; leave one out");
    }
    if (what.repeat || (!what.interval_ms && !what.all)) { return; }
    fail(problem::wrong_usage, "%s is for reads that are repeated: give --repeat N too",
         what.all ? "--all" : "--interval");
}

// Now, in local time as ISO 8601 has it; for a person with a blank and without the zone.
std::string time_text(bool json)
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local = {};
    localtime_r(&now.tv_sec, &local);
    char seconds[32], zone[8];
    strftime(seconds, sizeof seconds, json ? "%FT%T" : "%F %T", &local);
    strftime(zone, sizeof zone, "%z", &local); // +hhmm
    const std::string offset = zone;
    return format("%s.%03ld", seconds, now.tv_nsec / 1'000'000) +
           (json ? offset.substr(0, 3) + ":" + offset.substr(3) : "");
}

std::string pairs_text(std::span<const uint8_t> bytes)
{
    std::string out;
    for (size_t i = 0; i < bytes.size(); ++i) { out += format(i > 0 && i % 2 == 0 ? " %02x" : "%02x", bytes[i]); }
    return out;
}

// One of the repeated reads.
void read_again(session& talk, const read_options& what, outcome& line)
{
    try {
        read_card(talk, what, line.facts);
    } catch (const failure& failed) {
        line.failed = failed;
        if (status_of(failed.what) == exit_no_answer) {
            line.failed.text += why_unreached(line.facts.value("board", -1));
        }
    }
    line.facts["time"] = time_text(true);
}

void read_repeatedly(session& talk, const read_options& what, bool json, outcome& run)
{
    accept_interrupt();
    run.told = true;
    uint64_t reads = 0, failures = 0;
    problem first = problem::none; // what the first of them failed for
    std::string before;
    while (!interrupted() && (*what.repeat == 0 || reads < *what.repeat)) {
        const auto begun = std::chrono::steady_clock::now();
        outcome line{.command = run.command, .facts = run.facts, .one_line = true};
        read_again(talk, what, line);
        if (line.failed.what == problem::interrupted) { break; } // which says nothing of the card
        ++reads;
        if (line.failed.what != problem::none && failures++ == 0) { first = line.failed.what; }
        const std::string data = line.facts.value("data", std::string());
        const std::string now = name_of(line.failed.what) + data;
        if (now != before || what.all) {
            const std::string time = time_text(false) + "  ";
            if (!data.empty()) { line.answer = time + pairs_text(bytes_of_hex("data", {data})) + "\n"; }
            if (!json) { line.failed.text = time + line.failed.text; }
            say(line, json);
        }
        before = now;
        if (reads != *what.repeat) {
            pause_until(begun + std::chrono::milliseconds{what.interval_ms.value_or(interval_default_ms)});
        }
    }
    if (failures > 0) {
        fail(first, "%llu of %llu reads failed", static_cast<unsigned long long>(failures),
             static_cast<unsigned long long>(reads));
    }
}

} // namespace

void note_request(const settings& used, const card_options& card, uint8_t code, const char* meaning, outcome& run)
{
    note_command(used, code, meaning, run);
    run.facts.update({{"slot", card.slot}, {"model", card.model}});
}

void run_hello(const settings& used, outcome& run)
{
    note_command(used, command::greeting, "greeting", run);
    session talk(used, run);
    const stop_watch watch;
    const std::string text = talk.greet();
    const double took_ms = watch.seconds() * 1e3;
    run.facts.update({{"text", text}, {"elapsed_ms", took_ms}});
    run.answer = format("board %d answered in %.1f ms: %s\n", used.board, took_ms, text.c_str());
}

std::vector<uint8_t> read_card(session& talk, const read_options& what, nlohmann::ordered_json& facts)
{
    const answer got = talk.ask({what, command::read, what.len});
    note_result(got.result, facts);
    const std::string text = format("read of %s at 0x%08x from slot %d, model 0x%x", byte_count(what.len).c_str(),
                                    what.addr, what.slot, what.model);
    if (got.result != 0) {
        fail(problem::refused,
             "%s failed (result %d): the card did not answer or refused; check slot, model and address", text.c_str(),
             got.result);
    }
    if (got.length > got.payload.size()) {
        fail(problem::refused,
             "%s: the answer claims %u bytes and carries %zu: is this the daemon's version that belongs to this "
             "program?",
             text.c_str(), got.length, got.payload.size());
    }
    std::vector<uint8_t> data{got.payload.begin(), got.payload.begin() + static_cast<ptrdiff_t>(got.length)};
    facts.update({{"data_bytes", data.size()}, {"data", hex_text(data)}});
    if (data.size() >= what.len) { return data; }
    fail(problem::short_answer, "%s: the card sent only %s; does that register block end there?", text.c_str(),
         byte_count(data.size()).c_str());
}

void run_read(const settings& used, const read_options& options, outcome& run)
{
    check_usage(options);
    note_request(used, options, command::read, "read", run);
    run.facts.update({{"addr", options.addr}, {"len", options.len}});
    run.one_line = options.repeat.has_value();
    session talk(used, run);
    if (options.repeat) { return read_repeatedly(talk, options, used.json, run); }
    const std::vector<uint8_t> data = read_card(talk, options, run.facts);
    run.answer = hex_dump(options.addr, data);
    if (options.out_file.empty()) { return; }
    save(options.out_file, data);
    run.facts["out_file"] = options.out_file;
    run.answer = format("%s written to %s\n", byte_count(data.size()).c_str(), options.out_file.c_str());
}

} // namespace rvk::ctl
