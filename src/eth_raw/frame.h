// The frames exchanged with the cards: one request or one reply per frame, both closed by a 16-bit additive checksum.
// Packs requests and checks replies; moves and keeps nothing. Any thread. The only place that knows the layout.
#pragma once

#include "base/bytes.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

namespace rvk {

enum class drop : uint8_t; // base/counters.h

inline constexpr std::array<uint8_t, 6> eth_raw_tx_header{0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90}; // the cards' address
inline constexpr std::array<uint8_t, 6> eth_raw_rx_header{0x44, 0x44, 0x44, 0x44, 0x44, 0x44}; // the controller's
inline constexpr std::array<uint8_t, 2> eth_raw_transfer_IP{0x07, 0x00};                       // type of requests

// A card behind a link (0 to 2), and a place in it.
struct card_address {
    int link;
    uint16_t model;
    uint8_t slot;
    uint32_t addr;
};

// Every frame and every packet of the block protocol begins with the Ethernet head, 14 bytes.
struct ethernet_head {
    std::array<uint8_t, 6> destination, source;
    std::array<uint8_t, 2> type;
};
static_assert(sizeof(ethernet_head) == 14, "bytes without padding, as on the wire");

inline ethernet_head load_head(const uint8_t* frame) // of at least 14 bytes
{
    ethernet_head head;
    memcpy(&head, frame, sizeof head);
    return head;
}
inline void store_head(uint8_t* frame, const ethernet_head& head) { memcpy(frame, &head, sizeof head); }

// Request, controller to card: offsets in the frame, then sizes, little-endian, no padding between fields.
namespace request {
inline constexpr ethernet_head head{eth_raw_tx_header, eth_raw_rx_header, eth_raw_transfer_IP}; // 14 bytes, at 0
inline constexpr uint16_t sync_mark = 0xAA55;                                                   // 55 AA on the wire
inline constexpr size_t sync = sizeof head;                                                     // 2
inline constexpr size_t model = 16, slot = 18, seq = 19, code = 21, addr = 22; // 2 1 2 1 4, checksummed from here
inline constexpr size_t len = 26, payload = 28;                                // 2    as the caller gave it, not padded
} // namespace request

// Reply, card to controller: the request's fields one byte further on, behind the card's status.
namespace reply {
inline constexpr ethernet_head head{eth_raw_rx_header, eth_raw_tx_header, eth_raw_transfer_IP}; // 14; the type is any
inline constexpr uint16_t sync_mark = 0x55AA;                                                   // AA 55 on the wire
inline constexpr size_t sync = sizeof head;                                                     // 2
inline constexpr size_t ack = 16, model = 17, slot = 19, seq = 20, code = 22, addr = 23;        // 1 2 1 2 1 4
inline constexpr size_t len = 27, payload = 29;                                                 // 2    payload bytes
} // namespace reply

inline constexpr size_t checksummed_from = 16;     // frame, both directions
inline constexpr uint16_t checksum_start = 0x5555; // frame
inline constexpr size_t checksum_bytes = 2;        // frame
inline constexpr size_t frame_data_max = 1400;     // card: the most data it takes or gives in one frame
inline constexpr size_t frame_data_min = 64;       // card: shorter payloads are padded to this
inline constexpr size_t request_bytes_max = request::payload + frame_data_max + checksum_bytes;
static_assert(reply::payload == request::payload + 1, "a reply is the request with the card's status put in");

// Codes of requests, and of the replies to them.
inline constexpr uint8_t code_read = 0x00, code_write = 0x01, code_write_ack = 0x11; // card
inline constexpr uint8_t code_ack_short = 0x10;                                      // card: the other acknowledgement
inline constexpr uint8_t ack_good = 0;                                               // card
inline constexpr uint8_t no_answer = 255; // ours, in a pending request; from a card it says nothing

// Bytes of payload area that a request of this code and length carries. Reads always carry 64 and ask for `len`.
constexpr size_t padded_length(uint8_t code, size_t len)
{
    return code == code_read || len < frame_data_min ? frame_data_min : len;
}

// 0x5555 plus the bytes, modulo 65,536. The second is the plain loop, which says what the first computes.
[[nodiscard]] uint16_t frame_checksum(const uint8_t* bytes, size_t count);
[[nodiscard]] uint16_t frame_checksum_plain(const uint8_t* bytes, size_t count);

// Writes header and checksum around a payload that lies in a frame buffer (28 bytes of it in front of the payload, at
// least padded_length + 2 from it on), and moves *payload to the frame's start. Result: the frame's length in bytes.
[[nodiscard]] unsigned RawMsgHeaderPack(uint16_t model, uint8_t slot, uint8_t code, uint32_t addr, uint16_t seq,
                                        uint8_t** payload, uint16_t len);

// Why a received frame is no valid reply: foreign, length or checksum; nothing when it is one.
[[nodiscard]] std::optional<drop> fault_of(const uint8_t* frame, size_t received);

// Checks a received frame. Result: its payload when it is a valid reply, null otherwise; foreign frames and runts are
// dropped silently, a wrong checksum or a `len` that runs past what was received is logged. The out-parameters are
// written once the addresses, the sync bytes and the length of the header are right, also when the rest then is not.
[[nodiscard]] const uint8_t* RawMsgHeaderUnpack(const uint8_t* frame, size_t received, uint8_t* ack, uint16_t* model,
                                                uint8_t* slot, uint8_t* code, uint32_t* addr, uint16_t* seq,
                                                uint16_t* len);

// For other programs; nobody here calls them: the largest payload, and 13, the size of no header above, in bytes.
constexpr int RawSockMsgJumboFrameSize() { return frame_data_max; }
constexpr int RawSockMsgHeaderSize() { return 13; }

} // namespace rvk
