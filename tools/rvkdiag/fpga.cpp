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

constexpr uint32_t write_ticks = 6; // as a peek's
constexpr uint32_t nobody = 0;      // whoever asks is this process: reports stay in it

std::string card_text(const fpga_options& o)
{
    return format("%s, slot %u, model 0x%x", name_of_link(o.link).c_str(), o.slot, o.model);
}

std::string what_text(const fpga_options& o, const char* verb, size_t bytes)
{
    return format("%s of %s at 0x%08x, %s", verb, byte_count(bytes).c_str(), o.addr, card_text(o).c_str());
}

[[noreturn]] void no_answer_to(const std::string& what)
{
    throw failure{problem::no_answer, what + ": no answer; check card, slot, model and address"};
}

// Result: nothing more to say than what is printed.
std::string check_length(const fpga_options& o, size_t received)
{
    if (received >= o.len) { return ""; }
    throw failure{problem::short_answer, format("%s: the card sent only %s; does that register block end there?",
                                                what_text(o, "read", o.len).c_str(), byte_count(received).c_str())};
}

std::string peek_and_wait(const fpga_options& o)
{
    reg_answer got{};
    if (read_reg(o.link, o.model, o.slot, o.addr, o.len, &got) == 0) { return check_length(o, got.received); }
    const std::string what = what_text(o, "read", o.len);
    if (got.ack == no_answer) { no_answer_to(what); }
    if (got.ack == ack_good) { throw failure{problem::refused, what + ": the card answered without usable data"}; }
    throw failure{problem::refused, format("%s: the card refused with status 0x%02x", what.c_str(), got.ack)};
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
    if (reports.empty()) { throw failure{problem::no_answer, what + ": not sent" + said()}; }
    const report& end = reports.front();
    static constexpr uint8_t nothing = 0;
    process_recvbuf(end.data.empty() ? &nothing : end.data.data(), o.addr, static_cast<int>(end.data.size()));
    if (end.result == 0) { return check_length(o, end.data.size()); }
    if (!end.answered) { no_answer_to(what + ", sent three times"); }
    throw failure{problem::refused, what + ": the card refused, or its answer was unusable" + said()};
}

std::string poke(const fpga_options& o)
{
    const std::string what = what_text(o, "write", o.bytes.size());
    const int32_t unsent = send_plain({o.link, o.model, o.slot, o.addr}, code_write, o.bytes);
    if (unsent < 0) { throw failure{problem::no_answer, what + ": not sent, no buffer left"}; }
    if (unsent > 0) {
        throw failure{problem::no_answer, format("%s: %d frames could not be sent", what.c_str(), unsent) + said()};
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
        throw failure{problem::refused, format("%s: the card refused with status 0x%02x", what.c_str(), ack)};
    }
    return what_text(o, "write", all.size()) + ": acknowledged\n";
}

std::string poke_and_await_report(const fpga_options& o)
{
    const std::string what = what_text(o, "write", o.bytes.size());
    const int32_t sent = RawSockSendMsgWithAck(nobody, o.link, o.model, o.slot, o.addr, code_write_ack, o.bytes);
    const std::vector<report> given_up = await_reports();
    if (sent != 0) { throw failure{problem::no_answer, what + ": not sent whole" + said()}; }
    if (given_up.empty()) { return what + ": acknowledged\n"; }
    const auto lowest = std::min_element(given_up.begin(), given_up.end(),
                                         [](const report& a, const report& b) { return a.addr < b.addr; });
    const bool refused = std::any_of(given_up.begin(), given_up.end(), [](const report& r) { return r.answered; });
    throw failure{refused ? problem::refused : problem::no_answer,
                  format("%s: %zu of %zu frames given up, the lowest at 0x%08x: %s", what.c_str(), given_up.size(),
                         (o.bytes.size() + frame_data_max - 1) / frame_data_max, lowest->addr,
                         refused ? "the card refused again and again"
                                 : "no answer to three sends; check card, slot, model and address")};
}

} // namespace

std::string run_fpga(const fpga_options& o)
{
    const size_t frames = std::max<size_t>((o.bytes.size() + frame_data_max - 1) / frame_data_max, 1);
    if (o.kind == access::write) {
        take_link(o.link);
        open_without_threads(o.link, request_bytes_max);
        return poke(o);
    }
    static constexpr struct {
        access kind;
        numbers used;
        std::string (*run)(const fpga_options&);
    } rows[] = {{access::read, numbers::read_ack, peek},
                {access::read_wait, numbers::read_wait, peek_and_wait},
                {access::write_ack, numbers::write_ack, poke_and_await_report},
                {access::write_ack_wait, numbers::write_ack_wait, poke_and_wait}};
    const auto* const row =
        std::find_if(std::begin(rows), std::end(rows), [&](const auto& r) { return r.kind == o.kind; });
    take_link(o.link, row->used, frames);
    open_with_threads(o.link, request_bytes_max);
    try {
        std::string answer = row->run(o);
        all_answered();
        return answer;
    } catch (const failure& failed) {
        // Of writes that nobody waits for, others may be unanswered beside one that was refused.
        if (status_of(failed.what) == exit_no && o.kind != access::write_ack) { all_answered(); }
        throw;
    }
}

} // namespace rvk::diag
