// The older block link, as every program may use it: blocks of up to 64 MiB to and from card memory, in packets of at
// most 8,000 data bytes. Whole block operations are serialised across all processes of the controller by a System V
// semaphore. The sockets are the link table's: an operation must not run on a link whose receive thread reads the same
// socket. Packets have up to 8,026 bytes and need an MTU of 9,000. Stands on nothing else of this tree, since it is
// also installed, with the library rvkbus; that one logs to standard error.
#pragma once

#include <cstdint>
#include <linux/if_packet.h>

namespace rvk {

inline constexpr int bus_semaphore_key = 1234569;    // the controller's: every program that uses the link has it
inline constexpr uint32_t bus_block_max = 0x4000000; // ours: 64 MiB
inline constexpr int bus_links = 3;                  // board: eth0 to eth2

struct xfer {               // a link as the block operations take it
    int sock_fd;            // the link's socket
    const sockaddr_ll* sll; // its address; both belong to the link table
};

// Opens all three links, whatever the count, and the semaphore. Before the process's threads start: a second call ends
// the handles of the first. A handle is this process's own, and dead once its interface was made anew.
//
// handles  receives a handle for each of the first count links, 0 to 3
// Result   0, also when no semaphore could be had: block operations fail then; -1: any other failure
[[nodiscard]] int32_t Open_Eth_Raw(xfer* handles, int count);

// Removes the semaphore: block operations of every process fail until it opens anew. Sockets stay open. Result: 0.
int32_t Close_Eth_Raw();

// Writes a block; no answer is awaited, and what a card did with it is not known. Up to three attempts.
// addr    card memory, in bytes
// length  bytes, 0 to bus_block_max
// Result  0 or negative. Waits without bound for the block operations of others. Any thread
[[nodiscard]] int32_t Write_FPGA_Bus_Block(const xfer* handle, uint32_t addr, uint32_t length, const uint8_t* data);

// Reads a block. A card that answers "good" without data has been read, too: what was in `destination` stays there. Up
// to ten attempts, each of up to ten packets per piece; a card that sends nothing is waited for as long as the socket
// waits (without bound, unless SO_RCVTIMEO is set on sock_fd).
// destination  `length` bytes; after a failure it may hold the first pieces
// Result       0 or negative. Waits without bound for the block operations of others. Any thread
[[nodiscard]] int32_t Read_FPGA_Bus_Block(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination);

} // namespace rvk
