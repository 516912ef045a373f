// Register peek and poke, for people at the bench.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rvk {

// Reads `length` bytes (at most 1,400) from a card and prints them; a read that fails prints the address alone.
// Result: of the read.
int32_t read_reg(int index, uint16_t model, uint8_t slot, uint32_t addr, int length);

// Writes one zero byte with acknowledgement. Result: of the write.
int32_t write_reg(int index, uint16_t model, uint8_t slot, uint32_t addr);

// Prints bytes on standard output, four words a line behind their address; null data prints nothing.
void process_recvbuf(const uint8_t* data, uint32_t addr, int length);

void usage();

// A hook for msg_recv; none at start.
extern void (*read_buffer)(const uint8_t* payload, uint32_t addr, uint16_t len);

// Waits for a reply on link 0 that comes while the hook is set, and hands it over. Result: 0. Must not run beside that
// link's receive thread: both use the process's one receive buffer.
int32_t msg_recv();

} // namespace rvk
