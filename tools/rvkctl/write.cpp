// Writes to a card, through the daemon, in commands of at most 1,400 bytes, each confirmed before the next is sent.
// Some writes have no answer of their own; since the daemon handles commands in order, its greetings confirm those.
#include "rvkctl/commands.h"

#include "ap_msg/message.h"
#include "eth_raw/frame.h"

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

std::vector<uint8_t> bytes_of(const write_options& options)
{
    if (options.words.empty() == options.file.empty()) {
        fail(problem::wrong_usage, "write needs either BYTES or --file FILE, and not both");
    }
    std::vector<uint8_t> bytes =
        options.file.empty() ? bytes_of_hex("BYTES", options.words) : bytes_of_file(options.file);
    check_space(options.addr, bytes.size());
    return bytes;
}

struct writer {
    session& talk;
    const write_options& options;
    std::span<const uint8_t> all;
    outcome& run;
    size_t sent = 0, confirmed = 0;   // commands; one that is sent and not confirmed may have been carried out
    bool greeted = false;             // behind the last command
    uint64_t last_reported_bytes = 0; // up to the end of the last piece that has no answer of its own; 0: none

    void write_all()
    {
        for (size_t at = 0; at < all.size(); at += frame_data_max) {
            talk.doing = [this, at] { return format("%zu of %s", at, byte_count(all.size()).c_str()); };
            write_piece(at, all.subspan(at, std::min(frame_data_max, all.size() - at)));
            ++confirmed;
        }
        if (last_reported_bytes > 0) { refuse_reported(report_wait); }
    }

    void write_piece(size_t at, std::span<const uint8_t> bytes)
    {
        request piece{options, options.no_ack ? command::write : command::write_ack,
                      static_cast<uint16_t>(bytes.size()), bytes};
        piece.addr += static_cast<uint32_t>(at);
        const bool answered = talk.write_is_answered(piece);
        if (!answered && !greeted) { talk.greet(); }
        ++sent;
        answered ? write_answered(piece) : write_before_a_greeting(piece);
        greeted = !answered;
        run.facts["confirmed_by"] = answered ? "reply" : "greeting";
    }

    void write_answered(const request& piece)
    {
        const answer got = talk.ask(piece);
        note_result(got.result, run.facts);
        if (got.result == 0) { return; }
        const size_t before = piece.addr - options.addr;
        fail(problem::refused,
             "write of %s at 0x%08x to %s failed (result %d): the card did not answer; check slot, model and address%s",
             byte_count(piece.len).c_str(), piece.addr, target_text(options).c_str(), got.result,
             before == 0 ? "" : format("; the %s before are written", byte_count(before).c_str()).c_str());
    }

    void write_before_a_greeting(const request& piece)
    {
        talk.tell(piece);
        talk.greet();
        if (options.no_ack) { return; } // nobody ever reports on a plain write
        last_reported_bytes = piece.addr + uint64_t{piece.len} - options.addr;
        refuse_reported(milliseconds{0});
    }

    // The daemon's reports name the address of the piece that it gave up.
    void refuse_reported(milliseconds wait)
    {
        const std::optional<uint32_t> where = talk.reported_failure(options.addr, last_reported_bytes, wait);
        if (!where) { return; }
        note_result(-1, run.facts);
        run.facts["failed_addr"] = *where;
        fail(problem::refused,
             "write of %s at 0x%08x to %s failed (reported by the daemon): the card did not answer at 0x%08x; check "
             "slot, model and address",
             byte_count(all.size()).c_str(), options.addr, target_text(options).c_str(), *where);
    }
};

[[noreturn]] void refuse_difference(const write_options& options, uint64_t at, uint8_t wanted, uint8_t got,
                                    outcome& run)
{
    run.facts.update(
        {{"read_back", "differs"},
         {"first_difference", {{"offset", at}, {"wanted", hex_text({&wanted, 1})}, {"got", hex_text({&got, 1})}}}});
    const unsigned long long where = uint64_t{options.addr} + at;
    fail(problem::differs,
         "%s at 0x%08x differs from what was written: first at offset %llu (0x%08llx), wanted %02x, got %02x",
         target_text(options).c_str(), options.addr, static_cast<unsigned long long>(at), where, wanted, got);
}

// Reads the same bytes back, in pieces as they were written.
void verify(session& talk, const write_options& options, std::span<const uint8_t> all, outcome& run)
{
    try {
        for (size_t at = 0; at < all.size(); at += frame_data_max) {
            talk.doing = [at, &all] { return format("%zu of %s read back", at, byte_count(all.size()).c_str()); };
            const auto wanted = all.subspan(at, std::min(frame_data_max, all.size() - at));
            read_options piece{options};
            piece.addr += static_cast<uint32_t>(at);
            piece.len = static_cast<uint16_t>(wanted.size());
            nlohmann::ordered_json unused;
            const std::vector<uint8_t> got = read_card(talk, piece, unused);
            const auto differing = std::mismatch(wanted.begin(), wanted.end(), got.begin());
            if (differing.first == wanted.end()) { continue; }
            refuse_difference(options, at + static_cast<uint64_t>(differing.first - wanted.begin()), *differing.first,
                              *differing.second, run);
        }
    } catch (failure& failed) {
        if (failed.what == problem::differs) { throw; }
        run.facts["read_back"] = "none";
        failed.text = "written, but could not read it back: " + failed.text;
        throw;
    }
    run.facts.update({{"read_back", "same"}, {"compared_bytes", all.size()}});
}

// Added when no answer came, or a signal: how far the write got.
std::string progress_text(const writer& w, problem what)
{
    if (w.sent == 0 || what == problem::refused) { return ""; }
    const bool unsure = (what == problem::no_answer || what == problem::interrupted) && w.sent > w.confirmed;
    return format("; %zu of %s confirmed%s", std::min(w.confirmed * frame_data_max, w.all.size()),
                  byte_count(w.all.size()).c_str(), unsure ? ", the next ones may have been written" : "");
}

} // namespace

void run_write(const settings& used, const write_options& options, outcome& run)
{
    const std::vector<uint8_t> bytes = bytes_of(options);
    note_request(used, options, options.no_ack ? command::write : command::write_ack,
                 options.no_ack ? "plain write" : "acknowledged write", run);
    run.facts.update({{"addr", options.addr}, {"data_bytes", bytes.size()}});
    session talk(used, run);
    writer all{talk, options, bytes, run};
    try {
        all.write_all();
    } catch (failure& failed) {
        run.facts["commands_confirmed"] = all.confirmed;
        failed.text += progress_text(all, failed.what);
        throw;
    }
    run.facts["commands_confirmed"] = all.confirmed;
    if (options.verify) { verify(talk, options, bytes, run); }
    const char* const known = options.no_ack ? "sent, the card is not asked"
                              : all.greeted  ? "no failure reported"
                                             : "answered";
    run.answer =
        format("%s written to %s at 0x%08x: %s%s\n", byte_count(bytes.size()).c_str(), target_text(options).c_str(),
               options.addr, known, options.verify ? ", read back the same" : "");
}

} // namespace rvk::ctl
