// The rules of delivery as an outsider would state them; see ledger.h.
#include "sim/ledger.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "cardsim/checks.h"
#include "eth_raw/frame.h"
#include "queue/queue.h"

#include <algorithm>

namespace rvk {
namespace {

constexpr int frames_without_answer = 3; // of an asynchronous request; each refusal adds one
constexpr int periods = 3;               // of its timeout that a synchronous request waits

bool equal(std::span<const uint8_t> a, std::span<const uint8_t> b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}

} // namespace

std::span<const uint8_t> data_at(uint32_t addr)
{
    static const auto bytes = [] {
        std::array<uint8_t, 4096> all;
        uint32_t x = 1;
        for (uint8_t& byte : all) { byte = static_cast<uint8_t>((x = x * 1'664'525 + 1'013'904'223) >> 24); }
        return all;
    }();
    constexpr std::array<size_t, 8> lengths{1, 4, 63, 64, 65, 200, 1399, 1400};
    return std::span(bytes).subspan(addr % 1009, lengths[addr % lengths.size()]);
}

bool is_asynchronous(int queue) { return queue == ACK_QUEUE || queue == READ_QUEUE; }
bool is_write(int queue) { return queue == ACK_QUEUE || queue == ACK_WAIT_QUEUE; }

void ledger::expect(bool holds, size_t id, const char* what)
{
    if (holds || !first_wrong.empty()) { return; }
    const entry& e = entries[id];
    first_wrong = "request " + std::to_string(id) + " (queue " + std::to_string(e.queue) + ", number " +
                  std::to_string(e.seq) + ", " + std::to_string(e.frames) + " frames, " + std::to_string(e.refusals) +
                  " refusals): " + what;
}

size_t ledger::open(int queue, uint32_t addr, uint32_t timeout)
{
    std::vector<size_t>& numbered = of_queue[static_cast<size_t>(queue)];
    const auto seq = static_cast<uint16_t>(first_seq + numbered.size());
    numbered.push_back(entries.size());
    entries.push_back({.queue = queue, .addr = addr, .seq = seq, .timeout = timeout});
    return entries.size() - 1;
}

void ledger::frame(std::span<const uint8_t> bytes)
{
    request_fields fields;
    const verdict said = check_request(bytes, fields);
    const size_t id = fields.model;
    if (said != verdict::good || id >= entries.size()) {
        if (first_wrong.empty()) { first_wrong = std::string("a frame that no card takes: ") + name_of(said); }
        return;
    }
    entry& e = entries[id];
    ++e.frames;
    expect(e.frames == 1 || (e.end == ended::not_yet && !e.sending), id, "resent though it is over, or not out yet");
    expect(e.frames == 1 || is_asynchronous(e.queue), id, "a synchronous request was sent twice");
    expect(e.frames <= frames_without_answer + e.refusals, id, "sent too often");
    expect(fields.addr == e.addr && fields.seq == e.seq, id, "its frame has another address or number");
    expect(fields.len == data_at(e.addr).size(), id, "its frame has another length");
    expect(!is_write(e.queue) || equal(fields.data, data_at(e.addr)), id, "its frame has other data");
}

void ledger::answer(const answer_fields& said)
{
    const bool acknowledges = said.code == code_write_ack || said.code == code_ack_short;
    if (!acknowledges && said.code != code_read) { return; }
    const auto nth = static_cast<uint16_t>(said.seq - first_seq);
    for (const int queue : {0, 1, 2, 3}) {
        const std::vector<size_t>& numbered = of_queue[static_cast<size_t>(queue)];
        if (is_write(queue) != acknowledges || nth >= numbered.size()) { continue; }
        entry& e = entries[numbered[nth]];
        if (e.addr == said.addr && e.end == ended::not_yet) { answer_one(e, said); }
    }
}

void ledger::answer_one(entry& e, const answer_fields& said)
{
    const bool waits = !is_asynchronous(e.queue);
    const bool empty = !is_write(e.queue) && said.status == ack_good && said.len == 0;
    if (said.status == no_answer || (empty && !waits)) {
        e.refused = false;
        return;
    }
    if (said.status != ack_good && !waits) {
        (e.sending ? e.refused = true : (++e.refusals, false));
        return;
    }
    const bool too_long = !is_write(e.queue) && said.len > frame_data_max;
    e.end = empty || too_long || said.status != ack_good ? ended::badly : ended::well;
    e.status = said.status;
    e.len = said.status == ack_good ? said.len : 0;
    e.refused = false;
}

void ledger::aged(int ticks_handed_out)
{
    passes += ticks_handed_out > 0 ? 1 : 0;
    ticks += ticks_handed_out;
}

void ledger::out(size_t id)
{
    entry& e = entries[id];
    e.sending = false;
    if (e.refused && e.end == ended::not_yet) { ++e.refusals; }
    e.passes_before = passes;
    e.ticks_before = ticks;
}

void ledger::expect_time_ran_out(size_t id, int64_t least_ticks)
{
    const entry& e = entries[id];
    expect(e.end == ended::not_yet, id, "given up though it was answered");
    expect(passes - e.passes_before >= periods, id, "given up before its third expiry");
    expect(ticks - e.ticks_before >= least_ticks, id, "given up before its time");
}

void ledger::told(uint32_t to, std::span<const uint8_t> message)
{
    const size_t id = to;
    if (id >= entries.size()) {
        if (first_wrong.empty()) { first_wrong = "a report to nobody"; }
        return;
    }
    entry& e = entries[id];
    const auto result = static_cast<int32_t>(load_le32(message.data() + message::result));
    const bool write = e.queue == ACK_QUEUE;
    expect(is_asynchronous(e.queue) && ++e.reports == 1, id, "reported twice, or though its sender waits");
    expect(!e.sending, id, "reported before its sender was back");
    expect(load_le32(message.data() + message::addr) == e.addr, id, "reported with another address");
    expect(message[message::code] == (write ? command::write_ack : command::read), id, "reported as another kind");
    if (e.end == ended::not_yet) {
        expect_time_ran_out(id, 7); // of 9: its first period began while it was being sent
        expect(e.frames == frames_without_answer + e.refusals, id, "given up after another number of frames");
        e.end = ended::given_up;
    } else {
        expect(!write, id, "reported though it was acknowledged");
    }
    const size_t len = e.end == ended::well ? e.len : 0;
    expect(result == (e.end == ended::well ? 0 : -1), id, "reported with the wrong result");
    expect(message.size() == message_head_bytes + len, id, "reported with the wrong size");
    expect(message.size() != message_head_bytes + len ||
               equal(message.subspan(message::payload, len), data_at(e.addr).first(len)),
           id, "reported with wrong data");
}

void ledger::woken_late(size_t id)
{
    expect_time_ran_out(id, static_cast<int64_t>(periods) * entries[id].timeout);
    entries[id].end = ended::given_up;
}

void ledger::returned_async(size_t id, int32_t result)
{
    expect(result == (entries[id].end == ended::not_sent ? -1 : 0), id, "its call returned the wrong result");
}

void ledger::returned_write(size_t id, int32_t result, uint8_t ack)
{
    const entry& e = entries[id];
    if (e.end == ended::not_sent) { return expect(result == -1, id, "not sent, but its call returned 0"); }
    expect(result == (e.end == ended::given_up ? -1 : 0), id, "its call returned the wrong result");
    expect(ack == e.status, id, "its call returned the wrong acknowledgement");
}

void ledger::returned_read(size_t id, int32_t result, std::span<const uint8_t> room, size_t len)
{
    const entry& e = entries[id];
    if (e.end == ended::not_sent) { return expect(result == -1, id, "not sent, but its call returned 0"); }
    const size_t due = e.end == ended::well ? std::min(e.len, room.size()) : e.len;
    expect(result == (e.end == ended::well ? 0 : -1), id, "its call returned the wrong result");
    expect(len == due, id, "its call returned the wrong length");
    expect(e.end != ended::well || len != due || equal(room.first(due), data_at(e.addr).first(due)), id,
           "its call returned wrong data");
}

void ledger::close()
{
    for (size_t id = 0; id < entries.size(); ++id) {
        const entry& e = entries[id];
        expect(e.end != ended::not_yet, id, "neither answered nor given up");
        expect(e.frames >= 1, id, "never sent");
        const bool reported = e.end == ended::given_up || (e.queue == READ_QUEUE && e.end != ended::not_sent);
        expect(e.reports == (is_asynchronous(e.queue) && reported ? 1 : 0), id, "not reported as it should be");
    }
}

} // namespace rvk
