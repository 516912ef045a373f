// Writes to a card, through the daemon, in commands of at most 1,400 bytes, each confirmed before the next is sent.
// Some writes have no answer of their own; since the daemon handles commands in order, its greetings confirm those.
#include "rvkctl/commands.h"

#include "ap_msg/message.h"
#include "rvkctl/values.h"

#include <algorithm>
#include <span>

namespace rvk::ctl {
namespace {

using std::chrono::milliseconds;

// The daemon gives up on a card after three sends, 90 ms each, and some of its own time.
constexpr milliseconds report_wait{400};

std::string target_text(const write_options& options)
{
    return format("slot %d, model 0x%x", options.slot, options.model);
}

void note_request(const write_options& options, outcome& run)
{
    run.facts["code"] = options.no_ack ? command::write : command::write_ack;
    run.facts["code_meaning"] = options.no_ack ? "plain write" : "acknowledged write";
    run.facts["slot"] = options.slot;
    run.facts["model"] = options.model;
    run.facts["addr"] = options.addr;
    run.facts["bytes"] = options.bytes.size();
}

[[noreturn]] void throw_refused(const write_options& options, uint32_t addr, size_t bytes, const std::string& why)
{
    throw failure{problem::refused,
                  format("write of %zu bytes at 0x%08x to %s failed (%s): the card did not answer; check "
                         "slot, model and address",
                         bytes, addr, target_text(options).c_str(), why.c_str())};
}

class writer {
public:
    writer(session& with, const write_options& given, outcome& into) : talk(with), options(given), run(into) {}

    void write_all()
    {
        const std::span<const uint8_t> all{options.bytes};
        for (size_t at = 0; at < all.size(); at += command_data_max) {
            talk.doing = format("%zu of %zu bytes", at, all.size());
            write_piece(static_cast<uint32_t>(options.addr + at),
                        all.subspan(at, std::min<size_t>(command_data_max, all.size() - at)));
            ++confirmed;
        }
        if (last_reported_bytes > 0) { refuse_reported(report_wait); }
    }

    size_t sent = 0, confirmed = 0; // commands; one that is sent and not confirmed may have been carried out
    std::string confirmed_by;       // how the last was

private:
    void write_piece(uint32_t addr, std::span<const uint8_t> bytes)
    {
        const request piece{.code = options.no_ack ? command::write : command::write_ack,
                            .slot = options.slot,
                            .model = options.model,
                            .addr = addr,
                            .len = static_cast<uint16_t>(bytes.size()),
                            .payload = bytes};
        if (talk.write_is_answered(piece)) {
            write_answered(piece);
        } else {
            write_between_greetings(piece);
        }
    }

    void write_answered(const request& piece)
    {
        ++sent;
        const answer got = talk.ask(piece);
        greeted = false;
        confirmed_by = "reply";
        run.facts["result"] = got.result;
        run.facts["result_meaning"] = result_meaning(got.result);
        if (got.result != 0) { throw_refused(options, piece.addr, piece.len, format("result %d", got.result)); }
    }

    void write_between_greetings(const request& piece)
    {
        if (!greeted) { talk.greet(); }
        ++sent;
        talk.tell(piece);
        talk.greet();
        greeted = true;
        confirmed_by = "greeting";
        if (options.no_ack) { return; } // nobody ever reports on a plain write
        last_reported_bytes = piece.addr + uint64_t{piece.len} - options.addr;
        refuse_reported(milliseconds{0});
    }

    // The daemon's reports name the address of the piece that it gave up.
    void refuse_reported(milliseconds wait)
    {
        if (!talk.failure_reported(options.addr, last_reported_bytes, wait)) { return; }
        run.facts["result"] = -1;
        run.facts["result_meaning"] = result_meaning(-1);
        throw_refused(options, options.addr, options.bytes.size(), "reported by the daemon");
    }

    session& talk;
    const write_options& options;
    outcome& run;
    bool greeted = false;
    uint64_t last_reported_bytes = 0; // from the first byte on: what a report may be about; 0 without such a piece
};

std::string done_text(const write_options& options, const writer& done)
{
    const std::string what =
        format("%zu bytes written to %s at 0x%08x", options.bytes.size(), target_text(options).c_str(), options.addr);
    if (options.no_ack) { return what + ": sent, the card is not asked\n"; }
    return what + (done.confirmed_by == "reply" ? ": answered\n" : ": no failure reported\n");
}

// Added to a failure: how far the write got.
std::string progress_text(const write_options& options, const writer& all, problem what)
{
    if (what == problem::no_answer && all.sent > all.confirmed) {
        return format("; %zu of %zu bytes are confirmed, the next ones may have been written",
                      all.confirmed * command_data_max, options.bytes.size());
    }
    return all.confirmed == 0 ? "" : format("; the %zu bytes before it are written", all.confirmed * command_data_max);
}

void note_progress(const writer& all, outcome& run)
{
    run.facts["commands_sent"] = all.sent;
    run.facts["commands_confirmed"] = all.confirmed;
    if (!all.confirmed_by.empty()) { run.facts["confirmed_by"] = all.confirmed_by; }
}

} // namespace

void run_write(const settings& used, const write_options& options, outcome& run)
{
    session talk(used);
    run.facts.update(talk.facts());
    note_request(options, run);
    writer all(talk, options, run);
    try {
        all.write_all();
    } catch (failure& failed) {
        note_progress(all, run);
        failed.text += progress_text(options, all, failed.what);
        throw;
    }
    note_progress(all, run);
    run.answer = done_text(options, all);
}

} // namespace rvk::ctl
