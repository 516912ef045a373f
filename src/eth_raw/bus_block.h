// The older block link: blocks of up to 64 MiB to and from card memory, in packets of at most 8,000 data bytes. Whole
// block operations are serialised across all processes of the controller by a System V semaphore. Must not run on a
// link whose receive thread reads from the same socket. Packets of up to 8,026 bytes need an MTU of 9,000.
#pragma once

#include "eth_raw/link.h"

#include <cstddef>
#include <cstdint>
#include <span>

namespace rvk {

inline constexpr int bus_semaphore_key = 1234569;    // the controller's: every program that uses the link has it
inline constexpr uint32_t bus_block_max = 0x4000000; // ours: 64 MiB

// A link as the block operations take it.
struct xfer {
    int sock_fd;            // the link's socket
    const sockaddr_ll* sll; // the link's address, of the link table
};

// Opens all three links and the semaphore.
// handles  receives a handle for each of the first count links
// count    0 to 3
// Result   0; -1, or the failing step's. Without a semaphore (other than because it exists) it is 0 too, and every
// block
//          operation then fails
[[nodiscard]] int32_t Open_Eth_Raw(xfer* handles, int count);

// Removes the semaphore; the sockets stay open. Result: 0.
int32_t Close_Eth_Raw();

// Writes a block; no answer is awaited. Up to three attempts.
// Result: 0 or negative. Waits for the block operations of others.
[[nodiscard]] int32_t Write_FPGA_Bus_Block(const xfer* handle, uint32_t addr, uint32_t length, const uint8_t* data);

// Reads a block. Up to ten attempts; a card that never answers is waited for as long as the socket waits.
// destination  `length` bytes
[[nodiscard]] int32_t Read_FPGA_Bus_Block(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination);

// Lower layers; results 0 or negative unless said.
int32_t netdev_init(eth_init* links, int count); // opens links 0 to count - 1
int32_t eth_raw_tranfser_set(eth_init* links, xfer* handles, int count);
int32_t write_process_func(const xfer* handle, uint32_t addr, uint32_t length, const uint8_t* data);
int32_t read_process_func(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination);
int32_t send_message_func_unit(const xfer* handle, uint32_t addr, uint32_t length, const uint8_t* data, uint8_t type);
int32_t send_request_message_func(const xfer* handle, uint32_t addr, uint32_t length);

// Receives one answer of the expected kind (2 or 3). Result: 0; 1 for a good response; -1; -2 for a read that the card
// refused.
int32_t recv_message_func_unit(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination, uint8_t kind);
int32_t recv_read_back_message_func(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination);
int32_t recv_response_message_func(const xfer* handle, uint32_t addr, uint32_t length);

int32_t set_semvalue();
void del_semvalue();
int32_t semaphore_p();
int32_t semaphore_v();

} // namespace rvk
