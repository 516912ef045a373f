// Writes to a card, through the daemon, in commands of at most 1,400 bytes, each confirmed before the next is sent.
// Some writes have no answer of their own; since the daemon handles commands in order, its greetings confirm those.
#include "rvkctl/reading.h"

#include "ap_msg/message.h"
#include "command/values.h"
#include "eth_raw/frame.h"
#include "rvkctl/verify.h"

#include <algorithm>
#include <optional>
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
    run.facts["data_bytes"] = options.bytes.size();
}

class writer {
public:
    writer(session& with, const write_options& given, outcome& into) : talk(with), options(given), run(into) {}

    void write_all()
    {
        const std::span<const uint8_t> all{options.bytes};
        for (size_t at = 0; at < all.size(); at += frame_data_max) {
            talk.doing = format("%zu of %s", at, byte_count(all.size()).c_str());
            write_piece(static_cast<uint32_t>(options.addr + at),
                        all.subspan(at, std::min(frame_data_max, all.size() - at)));
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
        if (got.result == 0) { return; }
        const size_t before = piece.addr - options.addr;
        throw failure{
            problem::refused,
            format("write of %s at 0x%08x to %s failed (result %d): the card did not answer; check slot, model and "
                   "address%s",
                   byte_count(piece.len).c_str(), piece.addr, target_text(options).c_str(), got.result,
                   before == 0 ? "" : format("; the %s before are written", byte_count(before).c_str()).c_str())};
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
        const std::optional<uint32_t> where = talk.reported_failure(options.addr, last_reported_bytes, wait);
        if (!where) { return; }
        run.facts["result"] = -1;
        run.facts["result_meaning"] = result_meaning(-1);
        run.facts["failed_addr"] = *where;
        throw failure{
            problem::refused,
            format("write of %s at 0x%08x to %s failed (reported by the daemon): the card did not answer at 0x%08x; "
                   "check slot, model and address",
                   byte_count(options.bytes.size()).c_str(), options.addr, target_text(options).c_str(), *where)};
    }

    session& talk;
    const write_options& options;
    outcome& run;
    bool greeted = false;
    uint64_t last_reported_bytes = 0; // from the first byte on: what a report may be about; 0 without such a piece
};

// Reads the same bytes back, in pieces as they were written.
void verify_write(session& talk, const write_options& options, outcome& run)
{
    const std::span<const uint8_t> all{options.bytes};
    try {
        for (size_t at = 0; at < all.size(); at += frame_data_max) {
            talk.doing = format("%zu of %s read back", at, byte_count(all.size()).c_str());
            const auto wanted = all.subspan(at, std::min(frame_data_max, all.size() - at));
            const read_options piece{.slot = options.slot,
                                     .model = options.model,
                                     .addr = static_cast<uint32_t>(options.addr + at),
                                     .len = static_cast<uint16_t>(wanted.size())};
            nlohmann::ordered_json unused;
            const std::vector<uint8_t> got = read_card(talk, piece, unused);
            check_length(piece, got);
            const auto differing = std::mismatch(wanted.begin(), wanted.end(), got.begin());
            if (differing.first == wanted.end()) { continue; }
            const auto in_piece = static_cast<uint64_t>(differing.first - wanted.begin());
            refuse_difference({at + in_piece, *differing.first, *differing.second},
                              target_text(options) + format(" at 0x%08x differs from what was written", options.addr),
                              format("0x%08x", static_cast<uint32_t>(piece.addr + in_piece)), run);
        }
    } catch (failure& failed) {
        if (failed.what != problem::differs) { mark_not_read_back(failed, run); }
        throw;
    }
    note_same(all.size(), run);
}

std::string done_text(const write_options& options, const writer& done)
{
    const std::string what = format("%s written to %s at 0x%08x", byte_count(options.bytes.size()).c_str(),
                                    target_text(options).c_str(), options.addr);
    const char* const read_back = options.verify ? ", read back the same\n" : "\n";
    if (options.no_ack) { return what + ": sent, the card is not asked" + read_back; }
    return what + (done.confirmed_by == "reply" ? ": answered" : ": no failure reported") + read_back;
}

// Added when no answer came: how far the write got.
std::string progress_text(const write_options& options, const writer& all, problem what)
{
    if (all.sent == 0) { return ""; }
    return format("; %zu of %s confirmed%s", all.confirmed * frame_data_max, byte_count(options.bytes.size()).c_str(),
                  what == problem::no_answer && all.sent > all.confirmed ? ", the next ones may have been written"
                                                                         : "");
}

void note_progress(const writer& all, outcome& run)
{
    run.facts["commands_confirmed"] = all.confirmed;
    if (!all.confirmed_by.empty()) { run.facts["confirmed_by"] = all.confirmed_by; }
}

} // namespace

void run_write(const settings& used, const write_options& options, outcome& run)
{
    run.facts.update(facts_of(used));
    note_request(options, run);
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    writer all(talk, options, run);
    try {
        all.write_all();
    } catch (failure& failed) {
        note_progress(all, run);
        if (failed.what != problem::refused) { failed.text += progress_text(options, all, failed.what); }
        throw;
    }
    note_progress(all, run);
    if (options.verify) { verify_write(talk, options, run); }
    run.answer = done_text(options, all);
}

} // namespace rvk::ctl
