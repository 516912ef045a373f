#include "eth_raw/frame.h"

#include "base/counters.h"
#include "main/log.h"

namespace rvk {
namespace {

bool is_reply(const uint8_t* frame)
{
    const ethernet_head head = load_head(frame);
    return head.destination == reply::head.destination && head.source == reply::head.source &&
           load_le16(frame + reply::sync) == reply::sync_mark;
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

uint16_t frame_checksum_plain(const uint8_t* bytes, size_t count)
{
    uint16_t sum = checksum_start;
    for (size_t i = 0; i < count; ++i) { sum = static_cast<uint16_t>(sum + bytes[i]); }
    return sum;
}

// Two bytes at a time, as one 16-bit word: the sum of the words has each word's upper byte in it 256 times, so 255 of
// these are taken out again. All of it may wrap, since only the sum modulo 65,536 is wanted, and in which order the
// host has a word's bytes does not matter. In this form the compiler makes five vector instructions of 16 bytes, where
// it may vectorise at all: the flags stand beside this file's library.
uint16_t frame_checksum(const uint8_t* bytes, size_t count)
{
    uint16_t words = checksum_start;
    uint16_t upper = 0;
    for (size_t i = 0; i < count / 2; ++i) {
        uint16_t word;
        memcpy(&word, bytes + 2 * i, sizeof word);
        words = static_cast<uint16_t>(words + word);
        upper = static_cast<uint16_t>(upper + (word >> 8));
    }
    const uint16_t last = count % 2 == 0 ? 0 : bytes[count - 1];
    return static_cast<uint16_t>(words - 255 * upper + last);
}

unsigned RawMsgHeaderPack(uint16_t model, uint8_t slot, uint8_t code, uint32_t addr, uint16_t seq, uint8_t** payload,
                          uint16_t len)
{
    uint8_t* frame = *payload - request::payload;
    const size_t end = request::payload + padded_length(code, len);
    store_head(frame, request::head);
    store_le16(frame + request::sync, request::sync_mark);
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

std::optional<drop> fault_of(const uint8_t* frame, size_t received)
{
    if (received < reply::payload || !is_reply(frame)) { return drop::foreign; }
    if (claimed_bytes(frame) > received) { return drop::length; }
    if (carried_checksum(frame, received) != computed_checksum(frame)) { return drop::checksum; }
    return std::nullopt;
}

const uint8_t* RawMsgHeaderUnpack(const uint8_t* frame, size_t received, uint8_t* ack, uint16_t* model, uint8_t* slot,
                                  uint8_t* code, uint32_t* addr, uint16_t* seq, uint16_t* len)
{
    const std::optional<drop> fault = fault_of(frame, received);
    if (fault == drop::foreign) { return nullptr; }
    *ack = frame[reply::ack];
    *model = load_le16(frame + reply::model);
    *slot = frame[reply::slot];
    *seq = load_le16(frame + reply::seq);
    *code = frame[reply::code];
    *addr = load_le32(frame + reply::addr);
    *len = load_le16(frame + reply::len);
    if (!fault) { return frame + reply::payload; }
    if (fault == drop::length) {
        log_print(LOG_HERE, "reply of %zu bytes dropped: its len of %u needs %zu\n", received, *len,
                  claimed_bytes(frame));
    } else {
        log_print(LOG_HERE, "recv packet crc error:0x%x, should be: 0x%x\n", carried_checksum(frame, received),
                  computed_checksum(frame));
    }
    return nullptr;
}

} // namespace rvk
