// What a random history did and what must come of it: one entry per request, kept from outside by what senders were
// returned, frames carried, answers said and requesters were told. It knows the rules of delivery, none of their code.
//
// Whoever plays tells it everything that happens, before the daemon's code sees it. The first thing wrong stays as
// text.
#pragma once

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "cardsim/frames.h"
#include "eth_raw/frame.h"
#include "sim/world.h"

#include <algorithm>
#include <array>
#include <string>
#include <vector>

namespace rvk {

enum kind : uint8_t { later_write, waited_write, later_read, waited_read };
inline bool is_write(kind k) { return k <= waited_write; }
inline bool waits(kind k) { return k == waited_write || k == waited_read; }

inline constexpr uint16_t first_number = 65'400; // of a history, of every kind: they soon wrap

// How much is written to an address, and read from it; what, is data_at.
inline size_t length_at(uint32_t addr)
{
    constexpr std::array<size_t, 8> lengths{1, 4, 63, 64, 65, 200, 1399, 1400};
    return lengths[addr % lengths.size()];
}

enum class ended : uint8_t { not_yet, well, badly, given_up, not_sent };

struct entry {
    kind k;
    uint32_t addr;
    uint16_t seq;
    uint32_t timeout; // ticks, of those that wait
    ended end = ended::not_yet;
    uint8_t status = no_answer;              // of the answer that ended it
    size_t len = 0;                          // of its data
    bool unsent = false;                     // its first send failed: it was not sent, unless an answer came before
    bool is_out = false;                     // its first send is over; an answer may have ended it before
    int frames = 0, reports = 0;             // given to the system, whatever that did with them; to the requester
    int refusals = 0;                        // that must have been answered with a resend
    int passes_before = 0, ticks_before = 0; // of the history, when its time began
};

class ledger {
public:
    std::vector<entry> entries;
    std::string wrong;

    // A request begins. Result: its number, which its frames carry as the card's model.
    size_t open(kind k, uint32_t addr, uint32_t timeout)
    {
        const auto seq = static_cast<uint16_t>(first_number + of_kind[k].size());
        of_kind[k].push_back(entries.size());
        entries.push_back({.k = k, .addr = addr, .seq = seq, .timeout = timeout});
        return entries.size() - 1;
    }

    // Goes out. Result: whose it is.
    entry* frame(std::span<const uint8_t> bytes)
    {
        request_fields f;
        if (check_request(bytes, f) != violation::none || f.model >= entries.size()) {
            return wrong = "a bad frame", nullptr;
        }
        entry& e = entries[f.model];
        ++e.frames;
        const bool is_right = waits(e.k) ? e.frames == 1 : e.end == ended::not_yet || !e.is_out;
        expect(is_right, e, "resent though it is over, or waited for");
        expect(e.frames <= 3 + e.refusals, e, "sent too often");
        expect(f.addr == e.addr && f.seq == e.seq && f.len == length_at(e.addr) &&
                   (!is_write(e.k) || std::ranges::equal(f.data, data_at(e.addr, f.len))),
               e, "its frame has another head or other data");
        return &e;
    }

    // An answer comes that no card or cable has damaged: it may end one request of each of two kinds.
    void answer(uint8_t code, uint8_t status, uint32_t addr, uint16_t seq, size_t len)
    {
        if (code != code_write_ack && code != code_ack_short && code != code_read) { return; }
        for (const kind k : {later_write, waited_write, later_read, waited_read}) {
            const auto nth = static_cast<uint16_t>(seq - first_number);
            if (is_write(k) == (code == code_read) || nth >= of_kind[k].size()) { continue; }
            entry& e = entries[of_kind[k][nth]];
            if (e.addr == addr && e.end == ended::not_yet) { answer_one(e, status, len); }
        }
    }

    void aged(int handed_out)
    {
        passes += handed_out > 0 ? 1 : 0;
        ticks += handed_out;
    }

    // Its first send is over.
    void out(entry& e)
    {
        if (e.unsent && e.end == ended::not_yet) { e.end = ended::not_sent; }
        e.is_out = true;
        e.passes_before = passes;
        e.ticks_before = ticks;
    }

    void told(uint32_t to, std::span<const uint8_t> m)
    {
        if (to >= entries.size()) { return void(wrong = "a report to nobody"); }
        entry& e = entries[to];
        expect(!waits(e.k) && ++e.reports == 1, e, "reported twice, or though its sender waits");
        const bool as_itself = load_le32(&m[message::addr]) == e.addr &&
                               m[message::code] == (is_write(e.k) ? command::write_ack : command::read);
        if (e.end == ended::not_yet) {
            give_up(e, 9); // ticks
            expect(e.frames == 3 + e.refusals, e, "given up after another number of frames");
        } else {
            expect(!is_write(e.k), e, "reported though it was acknowledged");
        }
        const bool well = e.end == ended::well;
        const size_t len = well ? e.len : 0;
        expect(as_itself && static_cast<int32_t>(load_le32(&m[message::result])) == (well ? 0 : -1) &&
                   m.size() == message_head_bytes + len && begins(m.subspan(message::payload), e.addr, len),
               e, "reported as another, with the wrong result, or with wrong data");
    }

    // A request that waits is given up by a check pass; one that does not, by its report.
    void give_up(entry& e, int least_ticks)
    {
        expect(e.end == ended::not_yet, e, "given up though it was answered");
        expect(passes - e.passes_before >= 3 && ticks - e.ticks_before >= least_ticks, e, "given up before its time");
        e.end = ended::given_up;
    }

    // Its call is back. ack, len: of those that wait; dest: where its data is
    void returned(entry& e, int32_t result, uint8_t ack, size_t len, std::span<const uint8_t> dest)
    {
        const bool answered = e.k == waited_write ? e.end != ended::given_up : e.end == ended::well;
        const bool good = e.end != ended::not_sent && (!waits(e.k) || answered);
        expect(result == (good ? 0 : -1), e, "its call returned the wrong result");
        if (!waits(e.k) || e.end == ended::not_sent) { return; }
        const size_t due = answered ? std::min(e.len, dest.size()) : e.len;
        expect(is_write(e.k) ? ack == e.status : len == due && (!answered || begins(dest, e.addr, due)), e,
               "its call said something else than its answer, or returned wrong data");
    }

    // Nothing may be pending any more.
    void close()
    {
        for (const entry& e : entries) {
            expect(e.end != ended::not_yet && e.frames >= 1, e, "never sent, or neither answered nor given up");
            const bool due = !waits(e.k) && (e.end == ended::given_up || (!is_write(e.k) && e.end != ended::not_sent));
            expect(e.reports == (due ? 1 : 0), e, "not reported as it should be");
        }
    }

private:
    void expect(bool holds, const entry& e, const char* what)
    {
        if (holds || !wrong.empty()) { return; }
        wrong = "request " + std::to_string(&e - entries.data()) + " of kind " + std::to_string(e.k) + ": " + what;
    }

    static bool begins(std::span<const uint8_t> bytes, uint32_t addr, size_t n)
    {
        return bytes.size() >= n && std::ranges::equal(bytes.first(n), data_at(addr, n));
    }

    void answer_one(entry& e, uint8_t status, size_t len)
    {
        const bool empty = !is_write(e.k) && status == ack_good && len == 0;
        if (status == no_answer || (empty && !waits(e.k))) { return; }
        if (status != ack_good && !waits(e.k)) { return void(++e.refusals); }
        const bool too_long = !is_write(e.k) && len > frame_data_max;
        e.end = empty || too_long || status != ack_good ? ended::badly : ended::well;
        e.status = status;
        e.len = status == ack_good ? len : 0;
    }

    std::array<std::vector<size_t>, 4> of_kind; // entries by the order of their numbers
    int passes = 0, ticks = 0;
};

} // namespace rvk
