#include "link/requests.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "eth_raw/frame.h"
#include "link/bench_link.h"
#include "raw_msg/send_ack.h"
#include "raw_msg/send_plain.h"
#include "raw_msg/send_read.h"

#include <algorithm>
#include <array>

namespace rvk {
namespace {

constexpr uint32_t requester_identity = 0x010A7F05;

int32_t read_and_report(uint32_t addr, size_t len)
{
    uint8_t* const area = ApMsgBuffGet(frame_data_max);
    if (area == nullptr) { return -1; }
    const int32_t result = RawSockSendMsgWithRead(requester_identity, 0, 0, near_card.slot, addr, code_read,
                                                  static_cast<uint32_t>(len), {area, frame_data_max});
    if (result != 0) { ApMsgBuffFree(area); } // still ours
    return result;
}

int32_t read_and_wait(uint32_t addr, size_t len, uint32_t ticks, std::vector<uint8_t>* data)
{
    std::array<uint8_t, frame_data_max + 1> area{};
    uint32_t got = 0;
    const int32_t result = RawSockSendMsgWithReadWait(0, 0, near_card.slot, addr, code_read, static_cast<uint32_t>(len),
                                                      std::span(area).first(frame_data_max), &got, ticks);
    EXPECT_EQ(area.back(), 0) << "written past the destination";
    if (result == 0) { data->assign(area.begin(), area.begin() + got); }
    return result;
}

// One word about one message, with the address that it names.
std::string judged(const collected_message& message, uint32_t addr)
{
    const std::vector<uint8_t>& m = message.bytes;
    const auto word = [&](size_t at) { return load_le32(m.data() + at); };
    if (message.destination != requester_identity || word(message::aptid) != own_identity()) {
        return "wrong identity";
    }
    const size_t carried = m.size() - message_head_bytes;
    if (word(message::length) != m.size() || m[message::id] != 254) { return "wrong head"; }
    if (word(message::result) == 0xFFFFFFFF) { return carried == 0 ? "failed" : "wrong length"; }
    if (m[message::code] != command::read || word(message::result) != 0) { return "wrong code"; }
    if (load_le16(m.data() + message::len) != carried) { return "wrong len"; }
    const std::vector<uint8_t> data(m.begin() + message::payload, m.end() - 2);
    return data == pattern(addr, carried) ? "data" : "wrong data";
}

} // namespace

const char* name_of(request_kind kind)
{
    switch (kind) {
    case request_kind::plain_write: return "plain write";
    case request_kind::reported_write: return "write";
    case request_kind::waited_write: return "waited write";
    case request_kind::reported_read: return "read";
    case request_kind::waited_read: return "waited read";
    }
    return "";
}

request_result run_request(request_kind kind, uint32_t addr, size_t len, uint32_t ticks)
{
    request_result r;
    const std::vector<uint8_t> data = pattern(addr, len);
    const uint8_t slot = near_card.slot;
    const uint64_t from = now_us();
    switch (kind) {
    case request_kind::plain_write: r.result = RawSockSendMsg(0, 0, slot, addr, code_write, data); break;
    case request_kind::reported_write:
        r.result = RawSockSendMsgWithAck(requester_identity, 0, 0, slot, addr, code_write_ack, data);
        break;
    case request_kind::waited_write:
        r.result = RawSockSendMsgWithAckWait(0, 0, slot, addr, code_write_ack, data, &r.ack, ticks);
        break;
    case request_kind::reported_read: r.result = read_and_report(addr, len); break;
    case request_kind::waited_read: r.result = read_and_wait(addr, len, ticks, &r.data); break;
    }
    r.took_us = now_us() - from;
    return r;
}

std::string heard_about(uint32_t addr, const std::vector<collected_message>& messages)
{
    std::string words;
    for (const collected_message& message : messages) {
        if (message.bytes.size() < message_head_bytes) { return "wrong size"; }
        if (load_le32(message.bytes.data() + message::addr) != addr) { continue; }
        words += (words.empty() ? "" : " ") + judged(message, addr);
    }
    return words;
}

} // namespace rvk
