// Register peek and poke. Waited-for operations ask once and wait three periods; the others are sent up to three times
// by the link's threads, and what they report in the end is awaited here. Of a plain write nothing is ever known.
#include "rvkdiag/commands.h"

#include "ap_msg/message.h"
#include "eth_raw/frame.h"
#include "main/diagnosis.h"
#include "queue/queue.h"
#include "raw_msg/send.h"
#include "rvkdiag/link.h"
#include "rvkdiag/log.h"

#include <algorithm>
#include <span>

namespace rvk::diag {
namespace {

using namespace tool;

constexpr uint32_t write_ticks = 6; // ours: as read_reg waits, 180 ms three times
constexpr uint32_t nobody = 0;      // whoever asks is this process: reports stay in it

std::string card_text(const fpga_options& o)
{
    return format("%s, slot %u, model 0x%x", name_of_link(o.link).c_str(), o.slot, o.model);
}

std::string what_text(const fpga_options& o, const char* verb, size_t bytes)
{
    return format("%s of %s at 0x%08x, %s", verb, byte_count(bytes).c_str(), o.addr, card_text(o).c_str());
}

size_t frames_of(const fpga_options& o)
{
    return std::max<size_t>((o.bytes.size() + frame_data_max - 1) / frame_data_max, 1);
}

[[noreturn]] void no_answer_to(const std::string& what)
{
    fail(problem::no_answer, "%s: no answer; check card, slot, model and address", what.c_str());
}

// Result: nothing more to say than what is printed.
std::string check_length(const fpga_options& o, size_t received)
{
    if (received >= o.len) { return ""; }
    fail(problem::short_answer, "%s: the card sent only %s; does that register block end there?",
         what_text(o, "read", o.len).c_str(), byte_count(received).c_str());
}

std::string peek_and_wait(const fpga_options& o)
{
    reg_answer got{};
    if (read_reg(o.link, o.model, o.slot, o.addr, o.len, &got) == 0) { return check_length(o, got.received); }
    const std::string what = what_text(o, "read", o.len);
    if (got.ack == no_answer) { no_answer_to(what); }
    if (got.ack == ack_good) { fail(problem::refused, "%s: the card answered without usable data", what.c_str()); }
    fail(problem::refused, "%s: the card refused with status 0x%02x", what.c_str(), got.ack);
}

std::vector<report> ask_for_report(const fpga_options& o)
{
    uint8_t* buffer = ApMsgBuffGet(frame_data_max); // the completion handler's, once the request is out
    if (buffer == nullptr) { return {}; }
    if (RawSockSendMsgWithRead(nobody, o.link, o.model, o.slot, o.addr, code_read, o.len, {buffer, frame_data_max}) !=
        0) {
        ApMsgBuffFree(buffer);
        return {};
    }
    return await_reports();
}

std::string peek(const fpga_options& o)
{
    const std::vector<report> reports = ask_for_report(o);
    const std::string what = what_text(o, "read", o.len);
    if (reports.empty()) { fail(problem::no_answer, "%s: not sent%s", what.c_str(), said().c_str()); }
    const report& end = reports.front();
    static constexpr uint8_t nothing = 0;
    process_recvbuf(end.data.empty() ? &nothing : end.data.data(), o.addr, static_cast<int>(end.data.size()));
    if (end.result == 0) { return check_length(o, end.data.size()); }
    if (!end.answered) { no_answer_to(what + ", sent three times"); }
    fail(problem::refused, "%s: the card refused, or its answer was unusable%s", what.c_str(), said().c_str());
}

std::string poke(const fpga_options& o)
{
    const std::string what = what_text(o, "write", o.bytes.size());
    const int32_t unsent = send_plain({o.link, o.model, o.slot, o.addr}, code_write, o.bytes);
    if (unsent < 0) { fail(problem::no_answer, "%s: not sent, no buffer left", what.c_str()); }
    if (unsent > 0) {
        fail(problem::no_answer, "%s: %d frames could not be sent%s", what.c_str(), unsent, said().c_str());
    }
    return what + ": sent, the card is not asked\n";
}

std::string poke_and_wait(const fpga_options& o)
{
    const std::span<const uint8_t> all{o.bytes};
    for (size_t at = 0; at < all.size(); at += frame_data_max) {
        const auto piece = all.subspan(at, std::min(frame_data_max, all.size() - at));
        const auto addr = static_cast<uint32_t>(o.addr + at);
        uint8_t ack = no_answer;
        // One piece at a time: of several the operation tells only how the last one ended.
        const int32_t result =
            RawSockSendMsgWithAckWait(o.link, o.model, o.slot, addr, code_write_ack, piece, &ack, write_ticks);
        if (result == 0 && ack == ack_good) { continue; }
        std::string what = what_text(o, "write", all.size());
        if (at != 0) { what += format(", at 0x%08x", addr); }
        if (ack == no_answer) { no_answer_to(what); }
        fail(problem::refused, "%s: the card refused with status 0x%02x", what.c_str(), ack);
    }
    return what_text(o, "write", all.size()) + ": acknowledged\n";
}

std::string poke_and_await_report(const fpga_options& o)
{
    const std::string what = what_text(o, "write", o.bytes.size());
    const int32_t sent = RawSockSendMsgWithAck(nobody, o.link, o.model, o.slot, o.addr, code_write_ack, o.bytes);
    const std::vector<report> given_up = await_reports();
    if (sent != 0) { fail(problem::no_answer, "%s: not sent whole%s", what.c_str(), said().c_str()); }
    if (given_up.empty()) { return what + ": acknowledged\n"; }
    const uint32_t lowest = std::ranges::min(given_up, {}, &report::addr).addr;
    const bool refused = std::ranges::any_of(given_up, &report::answered);
    fail(refused ? problem::refused : problem::no_answer, "%s: %zu of %zu frames given up, the lowest at 0x%08x: %s",
         what.c_str(), given_up.size(), frames_of(o), lowest,
         refused ? "the card refused again and again"
                 : "no answer to three sends; check card, slot, model and address");
}

constexpr fpga_kind kinds[] = {{"read", true, numbers::read_ack, peek},
                               {"readw", true, numbers::read_wait, peek_and_wait},
                               {"write", false, {}, poke},
                               {"writea", false, numbers::write_ack, poke_and_await_report},
                               {"writeaw", false, numbers::write_ack_wait, poke_and_wait}};

} // namespace

const fpga_kind& fpga_kind_in(const std::string& text)
{
    for (const fpga_kind& kind : kinds) {
        if (text == kind.name) { return kind; }
    }
    fail(problem::wrong_usage, "KIND \"%s\": give read, readw, write, writea or writeaw", text.c_str());
}

std::string run_fpga(const fpga_options& o)
{
    take_link(o.link, o.kind->used, frames_of(o));
    open_link(o.link, request_bytes_max, o.kind->used.has_value());
    try {
        std::string answer = o.kind->run(o);
        all_answered();
        return answer;
    } catch (const failure& failed) {
        // Of writes that nobody waits for, others may be unanswered beside one that was refused.
        if (status_of(failed.what) == exit_no && o.kind->used != numbers::write_ack) { all_answered(); }
        throw;
    }
}

} // namespace rvk::diag
