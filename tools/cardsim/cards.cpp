#include "cardsim/cards.h"

#include "base/bytes.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/frame.h"

#include <algorithm>
#include <numeric>

namespace rvk {
namespace {

constexpr uint64_t reorder_wait_us = 5000; // ours: far below any timeout, far above the time between two answers
constexpr uint16_t len_too_much = 100;     // ours: past the frame's end, and in most cases not past a receive buffer's
constexpr uint16_t len_beyond_all = 60000; // ours: past every buffer
constexpr size_t oversized_len = frame_data_max + 1;
constexpr uint8_t refused_status = 2;  // ours: of injected refusals, unlike ack_refused
constexpr uint32_t bus_other_addr = 8; // ours
constexpr card_id playback_card{0, playback_slot};

// "wrong_checksum 2, len_zero 1": those that happened, from the one of this index on.
template <typename Enum, size_t count>
std::string listed(const std::array<uint64_t, count>& happened, size_t from)
{
    std::string text;
    for (size_t i = from; i < count; ++i) {
        if (happened[i] == 0) { continue; }
        text += text.empty() ? "" : ", ";
        text += std::string(tool::enumerators<Enum, count>[i]) + ' ' + std::to_string(happened[i]);
    }
    return text.empty() ? "none" : text;
}

// What goes wrong with an answer's bytes on their way.
void damage(farm_state& s, reply_frame& reply)
{
    if (s.happens(fault::corrupt)) {
        const uint32_t bits = static_cast<uint32_t>(reply.size() - checksummed_from) * 8;
        const uint32_t bit = s.injector.below(fault::corrupt, bits);
        reply[checksummed_from + bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
    }
    if (s.happens(fault::trailing)) { reply.insert(reply.end(), 1 + s.injector.below(fault::trailing, 16), filler); }
}

// What goes wrong with a bus-block answer whatever it holds; its checksum is right.
void spoil_bus(farm_state& s, reply_frame& reply)
{
    uint8_t* addr = &reply[bus::addr];
    if (s.happens(fault::bus_wrong_addr)) { store_le32(addr, load_le32(addr) ^ bus_other_addr); }
    close_bus_answer(reply);
}

// A card that lies about its len is in earnest: everything else about its frame is right.
void spoil(farm_state& s, reply_frame& reply)
{
    uint8_t* len_field = &reply[reply::len];
    const uint16_t len = load_le16(len_field);
    if (s.happens(fault::len_past_end)) {
        store_le16(len_field, static_cast<uint16_t>(len + len_too_much));
    } else if (s.happens(fault::len_huge)) {
        store_le16(len_field, len_beyond_all);
    } else if (len > 0 && s.happens(fault::len_short)) {
        store_le16(len_field, len / 2);
    }
    close_reply(reply);
}

// The next four carry a request out. Result: there is an answer.
bool act_on_write(farm_state& s, const request_fields& request, uint8_t& status)
{
    const card_id id{request.model, request.slot};
    sim_card& card = s.cards[id];
    if (const auto wrong = s.injector.on_write(request, card.firmware.next_piece())) {
        ++s.counts.injected[static_cast<size_t>(*wrong)];
        status = refused_status;
        return *wrong != fault::silent_piece;
    }
    const violation wrong = card.write(request);
    s.counts.note(wrong);
    if (is_refused(wrong)) {
        status = ack_refused;
        return true;
    }
    s.counts.bytes_written += request.data.size();
    if (id == playback_card) {
        s.playback.note_write(request.addr, request.data);
        if (const auto buffer = card.demo_picture_ended(request)) { s.playback.note_picture(*buffer); }
    }
    return true;
}

bool answer_write(farm_state& s, const request_fields& request, reply_frame& reply)
{
    const bool acknowledged = request.code == code_write_ack, refuse = acknowledged && s.happens(fault::wrong_ack);
    uint8_t status = refuse ? s.injector.record.wrong_status : ack_good;
    if (!refuse && !act_on_write(s, request, status)) { return false; }
    if (!acknowledged) { return false; }
    const uint8_t code = s.happens(fault::ack_code_short) ? code_ack_short : code_write_ack;
    pack_reply(reply, request, status, code, {});
    return true;
}

bool answer_read(farm_state& s, const request_fields& request, reply_frame& reply)
{
    const card_id id{request.model, request.slot};
    std::array<uint8_t, reply_data_max> data{};
    std::optional<fault> wrong, done;
    for (const fault kind : {fault::wrong_read, fault::read_says_none, fault::read_empty, fault::read_oversized}) {
        if (!wrong && s.happens(kind)) { wrong = kind; }
    }
    uint8_t status = s.injector.record.wrong_status;
    size_t len = wrong == fault::read_oversized ? oversized_len : request.len;
    if (wrong != fault::wrong_read) {
        const auto found = s.cards.find(id);
        const auto area = std::span(data).first(len);
        const violation v = found == s.cards.end() ? sim_card{}.read(request, area) // never written to
                                                   : found->second.read(request, area);
        s.counts.note(v);
        status = is_refused(v) ? ack_refused : ack_good;
        if (!is_refused(v)) { done = s.injector.on_read(request, data, len); }
        if (done) { ++s.counts.injected[static_cast<size_t>(*done)]; }
    }
    if (wrong == fault::wrong_read || wrong == fault::read_empty || status == ack_refused) { len = 0; }
    if (wrong == fault::read_says_none) { status = no_answer; }
    const bool answered = done != fault::silent_readiness;
    if (request.addr == readiness_at.addr && id == playback_card) {
        s.playback.note_readiness(answered && len > 0 ? data[0] : -1);
    }
    if (answered) { pack_reply(reply, request, status, code_read, std::span(data).first(len)); }
    return answered;
}

bool answer_bus(farm_state& s, const request_fields& request, reply_frame& reply)
{
    if (request.code == bus_write) {
        s.bus_memory.write(request.addr, request.data);
        s.counts.bytes_written += request.data.size();
        return false;
    }
    std::array<uint8_t, bus_data_max> data;
    const auto whole = std::span(data).first(request.len);
    s.bus_memory.read(request.addr, whole);
    if (s.happens(fault::bus_refused)) {
        pack_bus_answer(reply, bus_response, request.addr, {&s.injector.record.wrong_status, 1});
    } else if (s.happens(fault::bus_no_data)) {
        pack_bus_answer(reply, bus_response, request.addr, {&ack_good, 1});
    } else {
        const size_t n = s.happens(fault::bus_data_short) ? (whole.size() + 1) / 2 : whole.size();
        pack_bus_answer(reply, bus_read_back, request.addr, whole.first(n));
    }
    return true;
}

// What goes out during one call of the farm.
struct outgoing {
    farm_state& s;
    uint64_t now_us;
    std::vector<reply_frame>& frames;

    void hand_out(const reply_frame& frame)
    {
        frames.push_back(frame);
        s.trail.add(now_us, frame);
        ++s.counts.replies;
    }

    // Hands out those that wait for a next one, or those that are due; the one due first in front, equal ones as they
    // came.
    void release(bool behind_next)
    {
        const auto stays = [&](const late_reply& r) { return behind_next ? !r.behind_next : r.due_us > now_us; };
        const auto middle = std::stable_partition(s.late.begin(), s.late.end(), stays);
        std::stable_sort(middle, s.late.end(), [](const auto& a, const auto& b) { return a.due_us < b.due_us; });
        for (auto r = middle; r != s.late.end(); ++r) { hand_out(r->bytes); }
        s.late.erase(middle, s.late.end());
    }

    void send_foreign()
    {
        reply_frame extra;
        if (s.happens(fault::foreign)) {
            pack_reply(extra, {}, ack_good, code_write_ack, {});
            switch (s.injector.below(fault::foreign, 3)) {
            case 0: std::fill_n(extra.begin(), sizeof eth_raw_rx_header, uint8_t{0xFF}); break; // a broadcast
            case 1: extra[offsetof(ethernet_head, source)] ^= 0x01; break;
            default: std::swap(extra[reply::sync], extra[reply::sync + 1]); break; // looks like a request
            }
            hand_out(extra);
        }
        if (s.happens(fault::runt)) {
            pack_reply(extra, {}, ack_good, code_write_ack, {});
            // From a bare Ethernet header, the least that a raw socket sends, to a byte less than a reply's header.
            extra.resize(reply::sync + s.injector.below(fault::runt, reply::payload - reply::sync));
            hand_out(extra);
        }
    }

    // What goes wrong with an answer's arrival.
    void deliver(const reply_frame& reply)
    {
        if (s.happens(fault::reply_loss)) { return; }
        const size_t copies = s.happens(fault::duplicate) ? 2 : 1;
        const bool delayed = s.happens(fault::delay), reordered = !delayed && s.happens(fault::reorder);
        if (delayed || reordered) {
            const uint64_t wait_us = delayed ? uint64_t{s.injector.record.delay_ms} * 1000 : reorder_wait_us;
            s.late.insert(s.late.end(), copies, {now_us + wait_us, reordered, reply});
            return;
        }
        for (size_t i = 0; i < copies; ++i) { hand_out(reply); }
        release(true);
    }
};

} // namespace

uint64_t farm_counts::refused() const
{
    return std::accumulate(violations.begin() + first_violation, violations.end(), uint64_t{0});
}

std::string farm_counts::refusals() const { return listed<violation>(violations, first_violation); }

std::string farm_counts::injections() const
{
    std::string text = listed<fault>(injected, 0);
    std::replace(text.begin(), text.end(), '_', '-'); // as the options are called
    return text;
}

bool farm_state::happens(fault kind)
{
    const bool yes = injector.happens(kind);
    counts.injected[static_cast<size_t>(kind)] += yes;
    return yes;
}

void card_farm::request(std::span<const uint8_t> frame, uint64_t now_us, std::vector<reply_frame>& out)
{
    scoped_lock hold(lock);
    outgoing to{state, now_us, out};
    to.release(false);
    state.trail.add(now_us, frame);
    const bool bus = is_bus_packet(frame);
    request_fields fields;
    const violation said = bus ? check_bus_request(frame, fields) : check_request(frame, fields);
    farm_counts& c = state.counts;
    ++c.received;
    c.note(said);
    if (said != violation::none) { return; }
    const bool reads = fields.code == (bus ? bus_read : code_read);
    uint64_t& of_link = fields.code == code_write ? c.plain_writes : c.acknowledged_writes;
    ++(bus ? reads ? c.bus_reads : c.bus_writes : reads ? c.reads : of_link);
    const auto answer = bus ? answer_bus : reads ? answer_read : answer_write;
    reply_frame reply;
    if (state.happens(fault::loss) || !answer(state, fields, reply)) { return; }
    bus ? spoil_bus(state, reply) : spoil(state, reply);
    damage(state, reply);
    to.send_foreign();
    to.deliver(reply);
}

void card_farm::due(uint64_t now_us, std::vector<reply_frame>& out)
{
    scoped_lock hold(lock);
    outgoing{state, now_us, out}.release(false);
}

std::optional<uint64_t> card_farm::next_due_us()
{
    scoped_lock hold(lock);
    std::optional<uint64_t> first;
    for (const late_reply& r : state.late) { first = std::min(first.value_or(r.due_us), r.due_us); }
    return first;
}

} // namespace rvk
