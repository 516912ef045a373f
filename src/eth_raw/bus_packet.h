// The packets of the older block protocol, both ways: layout, checksum, and what is looked at in an answer before it is
// believed. A format of its own, unlike the frames of frame.h, with which it shares the two addresses and the type.
// Pure: bytes in, bytes or a verdict out; moves and keeps nothing. The block link calls it, and the simulated cards.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace rvk {

// Offsets from the packet's first byte, little-endian; both directions.
namespace bus {
inline constexpr size_t destination = 0, length = 6, rsv0 = 10, type = 11;   // 6 4 1 1  tx_header or rx_header
inline constexpr size_t ethertype = 12, rsv1 = 14, addr = 16, data_len = 20; // 2 2 4 4
inline constexpr size_t data = 24;
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

// The sum of the bytes from the length field on, over packet length - 8 bytes, modulo 65,536.
[[nodiscard]] uint16_t packet_checksum_calc(std::span<const uint8_t> packet);

} // namespace rvk
