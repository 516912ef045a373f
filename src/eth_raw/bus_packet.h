// The packets of the older block protocol, both ways: layout, checksum, and what is looked at in an answer before it is
// believed. A format of its own, unlike the frames of frame.h, with which it shares the Ethernet head; this one's
// source address is no address, but three fields. Pure: bytes in, bytes or a verdict out. Any thread.
#pragma once

#include "eth_raw/frame.h"

#include <span>

namespace rvk {

// Offsets from the packet's first byte, little-endian; both directions. Length, rsv0 and type lie in the head.
namespace bus {
inline constexpr size_t length = 6, rsv0 = 10, type = 11;    // 4 1 1
inline constexpr size_t rsv1 = sizeof(ethernet_head);        // 2
inline constexpr size_t addr = 16, data_len = 20, data = 24; // 4 4
} // namespace bus

inline constexpr uint8_t eth_raw_transfer_rsv0 = 0;              // packet: reserved
inline constexpr std::array<uint8_t, 2> eth_raw_transfer_rsv1{}; // packet: reserved

inline constexpr uint8_t bus_write = 0, bus_read = 1;                          // card: types of requests
inline constexpr uint8_t bus_read_back = 2, bus_response = 3;                  // card: types of answers
inline constexpr size_t bus_data_max = 8000, bus_data_min = 64;                // card
inline constexpr size_t bus_packet_overhead = 26;                              // packet: head and checksum
inline constexpr size_t bus_short_packet = bus_data_min + bus_packet_overhead; // 90
inline constexpr size_t bus_packet_max = 8050;                                 // ours: buffer of either direction
inline constexpr size_t bus_answer_max = 8046;                                 // card: no longer answer is one

// A request as it goes out; the buffer behind it stays as it was.
// length  bytes written, or bytes asked for
// data    `length` bytes of a write; a read request's 64
// Result  the packet's length in bytes; 0 when a write has more than 8,000 bytes
[[nodiscard]] size_t make_bus_request(std::array<uint8_t, bus_packet_max>* packet, uint32_t addr, uint32_t length,
                                      const uint8_t* data, uint8_t type);

// Checks an answer: destination, type, length against what was received, checksum, address. Result: 0 or -1.
[[nodiscard]] int32_t judge_packet(std::span<const uint8_t> packet, uint32_t addr);

// The single checks, of a packet of at least 26 bytes: destination, sum in the last two bytes, data length. Result: 0
// or -1.
[[nodiscard]] int32_t packet_header_judge(std::span<const uint8_t> packet);
[[nodiscard]] int32_t packet_checksum_judge(std::span<const uint8_t> packet, uint16_t computed);
[[nodiscard]] int32_t packet_length_judge(std::span<const uint8_t> packet, uint32_t requested);

// The sum of all bytes but the destination and the last two, modulo 65,536.
[[nodiscard]] uint16_t packet_checksum_calc(std::span<const uint8_t> packet);

} // namespace rvk
