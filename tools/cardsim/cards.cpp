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
constexpr uint8_t refused_status = 2;   // ours: of injected refusals, unlike ack_refused
constexpr uint32_t bus_other_addr = 8;  // ours
constexpr uint8_t bus_no_such_type = 4; // ours
constexpr card_id playback_card{0, playback_slot};

// "wrong_checksum 2, len_zero 1": those that happened, from the one of this index on.
template <typename Enum, size_t count>
std::string listed(const std::array<uint64_t, count>& happened, size_t from)
{
    std::string text;
    for (size_t i = from; i < count; ++i) {
        if (happened[i] == 0) { continue; }
        text += text.empty() ? "" : ", ";
        text += std::string(enumerators<Enum, count>[i]) + ' ' + std::to_string(happened[i]);
    }
    return text.empty() ? "none" : text;
}

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

void card_farm::set_faults(const card_faults& faults)
{
    scoped_lock hold(lock);
    injector.load(faults);
}

bool card_farm::happens(fault kind)
{
    const bool yes = injector.happens(kind);
    content.counts.injected[static_cast<size_t>(kind)] += yes;
    return yes;
}

void card_farm::request(std::span<const uint8_t> frame, uint64_t now_us, std::vector<reply_frame>& out)
{
    scoped_lock hold(lock);
    release(false, now_us, out);
    content.trail.add(now_us, frame);
    const bool bus = is_bus_packet(frame);
    request_fields fields;
    const violation said = bus ? check_bus_request(frame, fields) : check_request(frame, fields);
    ++content.counts.received;
    content.counts.note(said);
    if (said != violation::none) { return; }
    const bool reads = fields.code == (bus ? bus_read : code_read);
    farm_counts& c = content.counts;
    uint64_t& of_link = fields.code == code_write ? c.plain_writes : c.acknowledged_writes;
    ++(bus ? reads ? c.bus_reads : c.bus_writes : reads ? c.reads : of_link);
    const auto answer = bus ? &card_farm::answer_bus : reads ? &card_farm::answer_read : &card_farm::answer_write;
    reply_frame reply;
    if (happens(fault::loss) || !(this->*answer)(fields, reply)) { return; }
    bus ? spoil_bus(reply) : spoil(reply);
    damage(reply);
    send_foreign(now_us, out);
    deliver(reply, now_us, out);
}

// These carry a request out. Result: there is an answer.
bool card_farm::act_on_write(const request_fields& request, uint8_t& status)
{
    const card_id id{request.model, request.slot};
    sim_card& card = content.cards[id];
    if (const auto wrong = injector.on_write(request, card.firmware.next_piece())) {
        ++content.counts.injected[static_cast<size_t>(*wrong)];
        status = refused_status;
        return *wrong != fault::silent_piece;
    }
    const violation wrong = card.write(request);
    content.counts.note(wrong);
    if (is_refused(wrong)) {
        status = ack_refused;
        return true;
    }
    content.counts.bytes_written += request.data.size();
    if (id == playback_card) {
        content.playback.note_write(request.addr, request.data);
        if (const auto buffer = card.demo_picture_ended(request)) { content.playback.note_picture(*buffer); }
    }
    return true;
}

bool card_farm::answer_write(const request_fields& request, reply_frame& reply)
{
    const bool acknowledged = request.code == code_write_ack, refuse = acknowledged && happens(fault::wrong_ack);
    uint8_t status = refuse ? injector.record().wrong_status : ack_good;
    if (!refuse && !act_on_write(request, status)) { return false; }
    if (!acknowledged) { return false; }
    const uint8_t code = happens(fault::ack_code_short) ? code_ack_short : code_write_ack;
    pack_reply(reply, request, status, code, {});
    return true;
}

bool card_farm::answer_read(const request_fields& request, reply_frame& reply)
{
    const card_id id{request.model, request.slot};
    std::array<uint8_t, reply_data_max> data{};
    std::optional<fault> wrong, done;
    for (const fault kind : {fault::wrong_read, fault::read_says_none, fault::read_empty, fault::read_oversized}) {
        if (!wrong && happens(kind)) { wrong = kind; }
    }
    uint8_t status = injector.record().wrong_status;
    size_t len = wrong == fault::read_oversized ? oversized_len : request.len;
    if (wrong != fault::wrong_read) {
        const auto found = content.cards.find(id);
        const auto area = std::span(data).first(len);
        const violation v = found == content.cards.end() ? sim_card{}.read(request, area) // never written to
                                                         : found->second.read(request, area);
        content.counts.note(v);
        status = is_refused(v) ? ack_refused : ack_good;
        if (!is_refused(v)) { done = injector.on_read(request, data, len); }
        if (done) { ++content.counts.injected[static_cast<size_t>(*done)]; }
    }
    if (wrong == fault::wrong_read || wrong == fault::read_empty || status == ack_refused) { len = 0; }
    if (wrong == fault::read_says_none) { status = no_answer; }
    const bool answered = done != fault::silent_readiness;
    if (request.addr == readiness_at.addr && id == playback_card) {
        content.playback.note_readiness(answered && len > 0 ? data[0] : -1);
    }
    if (answered) { pack_reply(reply, request, status, code_read, std::span(data).first(len)); }
    return answered;
}

bool card_farm::answer_bus(const request_fields& request, reply_frame& reply)
{
    if (request.code == bus_write) {
        content.bus_memory.write(request.addr, request.data);
        content.counts.bytes_written += request.data.size();
        return false;
    }
    std::array<uint8_t, bus_data_max> data;
    const auto whole = std::span(data).first(request.len);
    const auto half = whole.first((whole.size() + 1) / 2);
    content.bus_memory.read(request.addr, whole);
    if (happens(fault::bus_refused)) {
        pack_bus_answer(reply, bus_response, request.addr, {&injector.record().wrong_status, 1});
    } else if (happens(fault::bus_no_data)) {
        pack_bus_answer(reply, bus_response, request.addr, {&ack_good, 1});
    } else if (happens(fault::bus_data_short)) {
        pack_bus_answer(reply, bus_read_back, request.addr, half);
    } else if (happens(fault::bus_data_lie)) {
        pack_bus_answer(reply, bus_read_back, request.addr, half);
        store_le32(&reply[bus::data_len], request.len);
    } else {
        pack_bus_answer(reply, bus_read_back, request.addr, whole);
    }
    return true;
}

// What goes wrong with a bus-block answer whatever it holds; its checksum is right.
void card_farm::spoil_bus(reply_frame& reply)
{
    uint8_t* p = reply.data();
    if (happens(fault::bus_length_lie)) { store_le32(p + bus::length, load_le32(p + bus::length) + len_too_much); }
    if (happens(fault::bus_wrong_type)) { p[bus::type] = bus_no_such_type; }
    if (happens(fault::bus_wrong_addr)) { store_le32(p + bus::addr, load_le32(p + bus::addr) ^ bus_other_addr); }
    if (happens(fault::bus_wrong_dest)) { p[offsetof(ethernet_head, destination)] ^= 1; }
    close_bus_answer(reply);
}

// A card that lies about its len is in earnest: everything else about its frame is right.
void card_farm::spoil(reply_frame& reply)
{
    uint8_t* len_field = &reply[reply::len];
    const uint16_t len = load_le16(len_field);
    if (happens(fault::len_past_end)) {
        store_le16(len_field, static_cast<uint16_t>(len + len_too_much));
    } else if (happens(fault::len_huge)) {
        store_le16(len_field, len_beyond_all);
    } else if (len > 0 && happens(fault::len_short)) {
        store_le16(len_field, len / 2);
    }
    close_reply(reply);
}

// What goes wrong with an answer's bytes on their way.
void card_farm::damage(reply_frame& reply)
{
    if (happens(fault::corrupt)) {
        const uint32_t bits = static_cast<uint32_t>(reply.size() - checksummed_from) * 8;
        const uint32_t bit = injector.below(fault::corrupt, bits);
        reply[checksummed_from + bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
    }
    if (happens(fault::trailing)) { reply.insert(reply.end(), 1 + injector.below(fault::trailing, 16), filler); }
}

void card_farm::send_foreign(uint64_t now_us, std::vector<reply_frame>& out)
{
    reply_frame extra;
    if (happens(fault::foreign)) {
        pack_reply(extra, {}, ack_good, code_write_ack, {});
        switch (injector.below(fault::foreign, 3)) {
        case 0: std::fill_n(extra.begin(), sizeof eth_raw_rx_header, uint8_t{0xFF}); break; // a broadcast
        case 1: extra[offsetof(ethernet_head, source)] ^= 0x01; break;
        default: std::swap(extra[reply::sync], extra[reply::sync + 1]); break; // looks like a request
        }
        hand_out(extra, now_us, out);
    }
    if (happens(fault::runt)) {
        pack_reply(extra, {}, ack_good, code_write_ack, {});
        // From a bare Ethernet header, the least that a raw socket sends, to one byte less than a reply's header.
        extra.resize(reply::sync + injector.below(fault::runt, reply::payload - reply::sync));
        hand_out(extra, now_us, out);
    }
}

// What goes wrong with an answer's arrival.
void card_farm::deliver(const reply_frame& reply, uint64_t now_us, std::vector<reply_frame>& out)
{
    if (happens(fault::reply_loss)) { return; }
    const size_t copies = happens(fault::duplicate) ? 2 : 1;
    const bool delayed = happens(fault::delay), reordered = !delayed && happens(fault::reorder);
    if (delayed || reordered) {
        const uint64_t wait_us = delayed ? uint64_t{injector.record().delay_ms} * 1000 : reorder_wait_us;
        late.insert(late.end(), copies, {now_us + wait_us, reordered, reply});
        return;
    }
    for (size_t i = 0; i < copies; ++i) { hand_out(reply, now_us, out); }
    release(true, now_us, out);
}

void card_farm::hand_out(const reply_frame& frame, uint64_t now_us, std::vector<reply_frame>& out)
{
    out.push_back(frame);
    content.trail.add(now_us, frame);
    ++content.counts.replies;
}

void card_farm::due(uint64_t now_us, std::vector<reply_frame>& out)
{
    scoped_lock hold(lock);
    release(false, now_us, out);
}

void card_farm::release(bool behind_next, uint64_t now_us, std::vector<reply_frame>& out)
{
    const auto stays = [=](const late_reply& r) { return behind_next ? !r.behind_next : r.due_us > now_us; };
    const auto middle = std::stable_partition(late.begin(), late.end(), stays);
    std::stable_sort(middle, late.end(), [](const auto& a, const auto& b) { return a.due_us < b.due_us; });
    for (auto r = middle; r != late.end(); ++r) { hand_out(r->bytes, now_us, out); }
    late.erase(middle, late.end());
}

std::optional<uint64_t> card_farm::next_due_us() const
{
    scoped_lock hold(lock);
    if (late.empty()) { return std::nullopt; }
    return std::min_element(late.begin(), late.end(), [](const auto& a, const auto& b) { return a.due_us < b.due_us; })
        ->due_us;
}

} // namespace rvk
