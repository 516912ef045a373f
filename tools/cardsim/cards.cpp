#include "cardsim/cards.h"

#include "base/bytes.h"
#include "eth_raw/frame.h"
#include "eth_raw/registers.h"

#include <algorithm>

namespace rvk {
namespace {

constexpr uint64_t reorder_wait_us = 5000; // ours: far below any timeout, far above the time between two answers
constexpr uint16_t len_too_much = 100;     // ours: past the frame's end, and in most cases not past a receive buffer's
constexpr uint16_t len_beyond_all = 60000; // ours: past every buffer
constexpr uint8_t stranger_fill = 0xA5;
constexpr card_id playback_card{0, playback_slot};

} // namespace

card_farm::card_farm(const card_faults& faults) { set_faults(faults); }

bool card_farm::happens(fault kind)
{
    const bool yes = dice.happens(kind);
    if (yes) { ++counted.injected[static_cast<size_t>(kind)]; }
    return yes;
}

void card_farm::note_mistake(mistake m)
{
    if (m != mistake::none) { ++counted.mistakes[static_cast<size_t>(m)]; }
}

void card_farm::misbehave(misbehaviour m) { ++counted.misbehaved[static_cast<size_t>(m)]; }

void card_farm::request(std::span<const uint8_t> frame, uint64_t now_us, std::vector<reply_frame>& out)
{
    scoped_lock hold(lock);
    release_due(now_us, out);
    trail.add(now_us, frame);
    if (is_bus_packet(frame)) {
        take_bus_packet(frame, now_us, out);
        return;
    }
    request_fields fields;
    if (note_request(frame, now_us, fields)) { carry_out(fields, now_us, out); }
}

// Result: the request is to be carried out.
bool card_farm::note_request(std::span<const uint8_t> frame, uint64_t now_us, request_fields& fields)
{
    const verdict said = check_request(frame, fields);
    ++counted.received;
    ++counted.verdicts[static_cast<size_t>(said)];
    if (said == verdict::foreign) { return false; }
    const bool good = said == verdict::good;
    const bool lost = good && happens(fault::loss);
    if (good) {
        counted.reads += fields.code == code_read;
        counted.plain_writes += fields.code == code_write;
        counted.acknowledged_writes += fields.code == code_write_ack;
    }
    record(frame, now_us, said, lost);
    return good && !lost;
}

void card_farm::record(std::span<const uint8_t> frame, uint64_t now_us, verdict said, bool lost)
{
    if (recorded.size() < record_max) {
        recorded.push_back({now_us, said, lost, {frame.begin(), frame.end()}});
    } else if (record_max > 0) {
        ++record_overflow;
    }
}

// The one place where a card acts.
void card_farm::carry_out(const request_fields& request, uint64_t now_us, std::vector<reply_frame>& out)
{
    uint8_t status = ack_good;
    if (request.code == code_write) {
        static_cast<void>(act_on_write(request, status)); // nobody is told
        return;
    }
    reply_frame reply;
    const bool answered = request.code == code_read ? answer_read(request, reply) : answer_write(request, reply);
    if (!answered) { return; }
    spoil(reply);
    send_strangers(now_us, out);
    deliver(reply, now_us, out);
}

// Result: there is an answer, of this status.
bool card_farm::act_on_write(const request_fields& request, uint8_t& status)
{
    const card_id id{request.model, request.slot};
    sim_card& card = all[id];
    if (const auto wrong = script.on_write(request.addr, card.firmware.next_piece())) {
        misbehave(*wrong);
        status = script.record().refused_status;
        return *wrong != misbehaviour::silent_piece;
    }
    const mistake wrong = card.write(request);
    note_mistake(wrong);
    if (is_refused(wrong)) {
        status = ack_refused;
        return true;
    }
    counted.bytes_written += request.data.size();
    if (id == playback_card) {
        played.note_write(request.addr, request.data);
        if (const auto buffer = card.demo_picture_ended(request)) { played.note_picture(*buffer); }
    }
    return true;
}

bool card_farm::answer_write(const request_fields& request, reply_frame& reply)
{
    const bool refuse = happens(fault::wrong_ack);
    uint8_t status = dice.record().wrong_status;
    if (!refuse) {
        status = ack_good;
        if (!act_on_write(request, status)) { return false; }
    }
    const uint8_t code = happens(fault::ack_code_short) ? code_ack_short : code_write_ack;
    pack_reply(reply, request, status, code, {});
    return true;
}

// Of those that change what a read is answered with, the first that happens.
std::optional<fault> card_farm::read_fault()
{
    for (const fault kind : {fault::wrong_read, fault::read_says_none, fault::read_empty, fault::read_oversized}) {
        if (happens(kind)) { return kind; }
    }
    return std::nullopt;
}

// Fills `data`, of which `len` bytes are the answer. Result: there is one, of this status.
bool card_farm::act_on_read(const request_fields& request, std::span<uint8_t> data, uint8_t& status, size_t& len)
{
    const auto found = all.find({request.model, request.slot});
    std::fill_n(data.begin(), len, uint8_t{0});
    const mistake wrong = found == all.end() ? sim_card{}.read(request, data.first(len)) // one never written to
                                             : found->second.read(request, data.first(len));
    note_mistake(wrong);
    if (is_refused(wrong)) {
        status = ack_refused;
        len = 0;
        return true;
    }
    const answer_rule rule = script.on_read(request.model, request.slot, request.addr);
    if (rule.silent) {
        misbehave(misbehaviour::silent_readiness);
        return false;
    }
    if (rule.value) { data[0] = *rule.value; }
    std::copy_n(rule.block.begin(), std::min(rule.block.size(), len), data.begin());
    if (rule.bytes == 0) { return true; }
    len = std::min<size_t>(rule.bytes, data.size());
    std::fill(data.begin() + 1, data.begin() + static_cast<std::ptrdiff_t>(len), stranger_fill);
    if (len > request.len) { misbehave(misbehaviour::oversized_answer); }
    return true;
}

bool card_farm::answer_read(const request_fields& request, reply_frame& reply)
{
    std::array<uint8_t, reply_data_max> data;
    uint8_t status = dice.record().wrong_status;
    size_t len = 0;
    bool answered = true;
    const auto wrong = read_fault();
    if (wrong != fault::wrong_read) {
        status = ack_good;
        len = wrong == fault::read_oversized ? std::max(dice.record().oversized_len, request.len) : request.len;
        answered = act_on_read(request, data, status, len);
        if (wrong == fault::read_says_none) { status = no_answer; }
        if (wrong == fault::read_empty) { len = 0; }
    }
    if (request.addr == readiness_register && card_id{request.model, request.slot} == playback_card) {
        played.note_readiness(answered && len > 0 ? data[0] : -1);
    }
    if (answered) { pack_reply(reply, request, status, code_read, std::span(data).first(len)); }
    return answered;
}

// What goes wrong with an answer's bytes on their way.
void card_farm::spoil(reply_frame& reply)
{
    uint8_t* len_field = reply.bytes.data() + reply::len;
    const uint16_t len = load_le16(len_field);
    if (happens(fault::len_past_end)) {
        store_le16(len_field, static_cast<uint16_t>(len + len_too_much));
    } else if (happens(fault::len_huge)) {
        store_le16(len_field, len_beyond_all);
    } else if (len > 0 && happens(fault::len_short)) {
        store_le16(len_field, len / 2);
    }
    close_reply(reply); // a lying card is in earnest: everything else about its frame is right
    damage(reply);
}

void card_farm::damage(reply_frame& reply)
{
    if (happens(fault::corrupt)) {
        const uint32_t bits = static_cast<uint32_t>(reply.length - checksummed_from) * 8;
        const uint32_t bit = dice.below(fault::corrupt, bits);
        reply.bytes[checksummed_from + bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
    }
    if (happens(fault::trailing)) {
        const size_t more = 1 + dice.below(fault::trailing, 16);
        std::fill_n(reply.bytes.begin() + static_cast<std::ptrdiff_t>(reply.length), more, stranger_fill);
        reply.length += more;
    }
}

void card_farm::send_strangers(uint64_t now_us, std::vector<reply_frame>& out)
{
    reply_frame stranger;
    if (happens(fault::foreign)) {
        pack_reply(stranger, {}, ack_good, code_write_ack, {});
        switch (dice.below(fault::foreign, 3)) {
        case 0: std::fill_n(stranger.bytes.begin() + reply::destination, 6, uint8_t{0xFF}); break; // a broadcast
        case 1: stranger.bytes[reply::source] ^= 0x01; break;
        default: std::swap(stranger.bytes[reply::sync], stranger.bytes[reply::sync + 1]); break; // looks like a request
        }
        hand_out(stranger.view(), now_us, out);
    }
    if (happens(fault::runt)) {
        pack_reply(stranger, {}, ack_good, code_write_ack, {});
        // From a bare Ethernet header, the least that a raw socket sends, to one byte less than a reply's header.
        stranger.length = reply::sync + dice.below(fault::runt, reply::payload - reply::sync);
        hand_out(stranger.view(), now_us, out);
    }
}

// What goes wrong with an answer's arrival.
void card_farm::deliver(const reply_frame& reply, uint64_t now_us, std::vector<reply_frame>& out)
{
    if (happens(fault::reply_loss)) { return; }
    const size_t copies = happens(fault::duplicate) ? 2 : 1;
    if (happens(fault::delay)) {
        const uint64_t late_us = now_us + uint64_t{dice.record().delay_ms} * 1000;
        held.insert(held.end(), copies, {late_us, false, {reply.view().begin(), reply.view().end()}});
        return;
    }
    if (happens(fault::reorder)) {
        held.insert(held.end(), copies, {now_us + reorder_wait_us, true, {reply.view().begin(), reply.view().end()}});
        return;
    }
    for (size_t i = 0; i < copies; ++i) { hand_out(reply.view(), now_us, out); }
    release(now_us, out, [](const held_reply& h) { return h.behind_next; });
}

void card_farm::hand_out(std::span<const uint8_t> frame, uint64_t now_us, std::vector<reply_frame>& out)
{
    out.emplace_back().assign(frame);
    trail.add(now_us, frame);
    ++counted.replies;
}

void card_farm::due(uint64_t now_us, std::vector<reply_frame>& out)
{
    scoped_lock hold(lock);
    release_due(now_us, out);
}

void card_farm::release_due(uint64_t now_us, std::vector<reply_frame>& out)
{
    release(now_us, out, [now_us](const held_reply& h) { return h.due_us <= now_us; });
}

// Hands out the held-back replies that `chosen` picks, the one due first in front, equal ones as they came.
template <typename Predicate>
void card_farm::release(uint64_t now_us, std::vector<reply_frame>& out, Predicate chosen)
{
    if (held.empty()) { return; }
    const auto middle = std::stable_partition(held.begin(), held.end(), [&](const auto& h) { return !chosen(h); });
    std::stable_sort(middle, held.end(), [](const auto& a, const auto& b) { return a.due_us < b.due_us; });
    for (auto h = middle; h != held.end(); ++h) { hand_out(h->bytes, now_us, out); }
    held.erase(middle, held.end());
}

std::optional<uint64_t> card_farm::next_due_us() const
{
    scoped_lock hold(lock);
    if (held.empty()) { return std::nullopt; }
    return std::min_element(held.begin(), held.end(), [](const auto& a, const auto& b) { return a.due_us < b.due_us; })
        ->due_us;
}

} // namespace rvk
