// The older block link whole: rvkbus.h, the packets of its protocol, the steps that its block operations are made of,
// and its semaphore. Owns the semaphore's identifier; the records of the links are the link table's. Any thread but for
// the opening; the only lock is the semaphore. Tests and tools take the steps; other programs stay with rvkbus.h.
#pragma once

#include "eth_raw/frame.h"
#include "eth_raw/rvkbus.h"

#include <span>

namespace rvk {

struct eth_init; // link.h

// The packets: a format of their own, unlike the frames of frame.h, with which they share the Ethernet head.
// Offsets in a packet, then sizes, little-endian; both directions. Length, rsv0 and type lie in the head.
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

// The single checks, of a packet of at least 26 bytes: destination, sum in its last two, data length. Result: 0 or -1.
[[nodiscard]] int32_t packet_header_judge(std::span<const uint8_t> packet);
[[nodiscard]] int32_t packet_checksum_judge(std::span<const uint8_t> packet, uint16_t computed);
[[nodiscard]] int32_t packet_length_judge(std::span<const uint8_t> packet, uint32_t requested);

// The sum of all bytes but the destination and the last two, modulo 65,536.
[[nodiscard]] uint16_t packet_checksum_calc(std::span<const uint8_t> packet);

// Of a read: packets looked at for each request, and the result when the card refuses, which ends it.
inline constexpr int bus_answer_tries = 10; // ours
inline constexpr int32_t bus_read_refused = -2;

// Results 0 or negative unless said; parameters as in rvkbus.h, none null. None of these takes the semaphore.
int32_t netdev_init(eth_init* links, int count); // opens links 0 to count - 1, up to the first that fails
int32_t eth_raw_tranfser_set(eth_init* links, xfer* handles, int count); // the handles keep pointers into `links`

// A block in pieces of 8,000 bytes and the rest, once.
int32_t write_process_func(const xfer* handle, uint32_t addr, uint32_t length, const uint8_t* data);
int32_t read_process_func(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination);

// One packet out. data: `length` bytes, at most 8,000, of a write (type 0); 64 of a read request (type 1).
int32_t send_message_func_unit(const xfer* handle, uint32_t addr, uint32_t length, const uint8_t* data, uint8_t type);
int32_t send_request_message_func(const xfer* handle, uint32_t addr, uint32_t length);

// Waits for one packet and takes it as an answer about this address.
// kind    2: read-back of `length` bytes, or the card's word that it is none; 3: response; another: only checked
// Result  0; 1 for a good response; -1: nothing came, not that answer, or a refusing response; -2: a refused read
int32_t recv_message_func_unit(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination, uint8_t kind);
int32_t recv_read_back_message_func(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination);
int32_t recv_response_message_func(const xfer* handle, uint32_t addr, uint32_t length); // 0 or -1; nobody calls it

// The System V semaphore around whole block operations, one for all processes of the controller. Both of its changes
// are undone by the system when a process dies inside an operation. Opened by the thread that opens the links.
extern int sem_id; // its identifier, -1 without one; of the last opening, also after the semaphore is removed

// Creates the semaphore, value 1, or attaches to it. Result: 0, also, logged, without one; -1: a new one was not set.
[[nodiscard]] int32_t open_semaphore();
int32_t set_semvalue(); // 1: free
void del_semvalue();    // removes it, for all processes

// Take and give back; the first waits without bound.
[[nodiscard]] int32_t semaphore_p();
[[nodiscard]] int32_t semaphore_v();

} // namespace rvk
