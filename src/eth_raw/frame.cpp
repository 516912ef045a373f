#include "eth_raw/frame.h"

#include "base/bytes.h"
#include "main/log.h"

#include <algorithm>

namespace rvk {
namespace {

bool is_reply(const uint8_t* frame)
{
    return std::equal(eth_raw_rx_header.begin(), eth_raw_rx_header.end(), frame + reply::destination) &&
           std::equal(eth_raw_tx_header.begin(), eth_raw_tx_header.end(), frame + reply::source) &&
           frame[reply::sync] == sync_high && frame[reply::sync + 1] == sync_low;
}

size_t claimed_bytes(const uint8_t* frame) { return reply::payload + load_le16(frame + reply::len) + checksum_bytes; }

uint16_t computed_checksum(const uint8_t* frame)
{
    return frame_checksum(frame + checksummed_from, reply::payload + load_le16(frame + reply::len) - checksummed_from);
}

uint16_t carried_checksum(const uint8_t* frame, size_t received)
{
    return load_le16(frame + received - checksum_bytes);
}

} // namespace

unsigned RawMsgHeaderPack(uint16_t model, uint8_t slot, uint8_t code, uint32_t addr, uint16_t seq, uint8_t** payload,
                          uint16_t len)
{
    uint8_t* frame = *payload - request::payload;
    const size_t end = request::payload + padded_length(code, len);
    std::copy(eth_raw_tx_header.begin(), eth_raw_tx_header.end(), frame + request::destination);
    std::copy(eth_raw_rx_header.begin(), eth_raw_rx_header.end(), frame + request::source);
    std::copy(eth_raw_transfer_IP.begin(), eth_raw_transfer_IP.end(), frame + request::type);
    frame[request::sync] = sync_low;
    frame[request::sync + 1] = sync_high;
    store_le16(frame + request::model, model);
    frame[request::slot] = slot;
    store_le16(frame + request::seq, seq);
    frame[request::code] = code;
    store_le32(frame + request::addr, addr);
    store_le16(frame + request::len, len);
    store_le16(frame + end, frame_checksum(frame + checksummed_from, end - checksummed_from));
    *payload = frame;
    return static_cast<unsigned>(end + checksum_bytes);
}

reply_fault fault_of(const uint8_t* frame, size_t received)
{
    if (received < reply::payload || !is_reply(frame)) { return reply_fault::foreign; }
    if (claimed_bytes(frame) > received) { return reply_fault::length; }
    return carried_checksum(frame, received) == computed_checksum(frame) ? reply_fault::none : reply_fault::checksum;
}

const uint8_t* RawMsgHeaderUnpack(const uint8_t* frame, size_t received, uint8_t* ack, uint16_t* model, uint8_t* slot,
                                  uint8_t* code, uint32_t* addr, uint16_t* seq, uint16_t* len)
{
    const reply_fault fault = fault_of(frame, received);
    if (fault == reply_fault::foreign) { return nullptr; }
    *model = load_le16(frame + reply::model);
    *slot = frame[reply::slot];
    *code = frame[reply::code];
    *addr = load_le32(frame + reply::addr);
    *len = load_le16(frame + reply::len);
    *ack = frame[reply::ack];
    *seq = load_le16(frame + reply::seq);
    if (fault == reply_fault::none) { return frame + reply::payload; }
    if (fault == reply_fault::length) {
        log_print(LOG_HERE, "reply of %zu bytes dropped: its len of %u needs %zu\n", received, *len,
                  claimed_bytes(frame));
    } else {
        log_print(LOG_HERE, "recv packet crc error:0x%x, should be: 0x%x\n", carried_checksum(frame, received),
                  computed_checksum(frame));
    }
    return nullptr;
}

} // namespace rvk
