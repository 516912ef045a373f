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
        throw failure{problem::wrong_usage, "write needs either BYTES or --file FILE, and not both"};
    }
    std::vector<uint8_t> bytes =
        options.file.empty() ? bytes_of_hex("BYTES", options.words) : bytes_of_file(options.file);
    check_space(options.addr, bytes.size());
    return bytes;
}

class writer {
public:
    writer(session& with, const write_options& given, std::span<const uint8_t> bytes, outcome& into)
        : talk(with), options(given), all(bytes), run(into)
    {
    }

    void write_all()
    {
        for (size_t at = 0; at < all.size(); at += frame_data_max) {
            talk.doing = [this, at] { return format("%zu of %s", at, byte_count(all.size()).c_str()); };
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
        note_result(got.result, run.facts);
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
        note_result(-1, run.facts);
        run.facts["failed_addr"] = *where;
        throw failure{
            problem::refused,
            format("write of %s at 0x%08x to %s failed (reported by the daemon): the card did not answer at 0x%08x; "
                   "check slot, model and address",
                   byte_count(all.size()).c_str(), options.addr, target_text(options).c_str(), *where)};
    }

    session& talk;
    const write_options& options;
    std::span<const uint8_t> all;
    outcome& run;
    bool greeted = false;
    uint64_t last_reported_bytes = 0; // from the first byte on: what a report may be about; 0 without such a piece
};

[[noreturn]] void refuse_difference(const write_options& options, uint64_t at, uint8_t wanted, uint8_t got,
                                    outcome& run)
{
    const uint64_t where = uint64_t{options.addr} + at;
    run.facts["read_back"] = "differs";
    run.facts["first_difference"] = {{"offset", at}, {"wanted", hex_text({&wanted, 1})}, {"got", hex_text({&got, 1})}};
    throw failure{
        problem::differs,
        format("%s at 0x%08x differs from what was written: first at offset %llu (0x%08llx), wanted %02x, got %02x",
               target_text(options).c_str(), options.addr, static_cast<unsigned long long>(at),
               static_cast<unsigned long long>(where), wanted, got)};
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
    run.facts["read_back"] = "same";
    run.facts["compared_bytes"] = all.size();
}

std::string done_text(const write_options& options, size_t bytes, const writer& done)
{
    const std::string what =
        format("%s written to %s at 0x%08x", byte_count(bytes).c_str(), target_text(options).c_str(), options.addr);
    const char* const read_back = options.verify ? ", read back the same\n" : "\n";
    if (options.no_ack) { return what + ": sent, the card is not asked" + read_back; }
    return what + (done.confirmed_by == "reply" ? ": answered" : ": no failure reported") + read_back;
}

// Added when no answer came, or a signal: how far the write got.
std::string progress_text(size_t bytes, const writer& all, problem what)
{
    if (all.sent == 0) { return ""; }
    const bool unsure = (what == problem::no_answer || what == problem::interrupted) && all.sent > all.confirmed;
    return format("; %zu of %s confirmed%s", std::min(all.confirmed * frame_data_max, bytes), byte_count(bytes).c_str(),
                  unsure ? ", the next ones may have been written" : "");
}

void note_progress(const writer& all, outcome& run)
{
    run.facts["commands_confirmed"] = all.confirmed;
    if (!all.confirmed_by.empty()) { run.facts["confirmed_by"] = all.confirmed_by; }
}

} // namespace

void run_write(const settings& used, const write_options& options, outcome& run)
{
    const std::vector<uint8_t> bytes = bytes_of(options);
    note_request(used, options, options.no_ack ? command::write : command::write_ack,
                 options.no_ack ? "plain write" : "acknowledged write", run);
    run.facts["addr"] = options.addr;
    run.facts["data_bytes"] = bytes.size();
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    writer all(talk, options, bytes, run);
    try {
        all.write_all();
    } catch (failure& failed) {
        note_progress(all, run);
        if (failed.what != problem::refused) { failed.text += progress_text(bytes.size(), all, failed.what); }
        throw;
    }
    note_progress(all, run);
    if (options.verify) { verify(talk, options, bytes, run); }
    run.answer = done_text(options, bytes.size(), all);
}

} // namespace rvk::ctl
