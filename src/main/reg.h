// Register peek and poke, for people at the bench: a read that prints what it got, a write of one zero byte, the usage
// text of a command line, a receive that hands one reply to a hook, and the terminal as standard output. The daemon
// calls none of it; the bench tool reads and prints by it. Owns nothing but the hook; what is printed goes to standard
// output.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rvk {

// What became of a read, for whoever has to say it.
struct reg_answer {
    uint8_t ack;       // the answer's status: 0 good, 255 none came, other: the card's refusal
    uint32_t received; // bytes printed
};

// index, model, slot, addr: link (0 to 2) and card address. Both wait for the card, at most three periods of 180 ms,
// and may be called by any thread but the link's own two.

// Reads `length` bytes, 1 to 1,400, and prints what came; a read that fails prints the address alone.
// answer  out, may be null
// Result  0 when data came, negative otherwise
int32_t read_reg(int index, uint16_t model, uint8_t slot, uint32_t addr, int length, reg_answer* answer = nullptr);

// Writes one zero byte with acknowledgement. Result: 0 when an answer came, good or not; negative otherwise.
int32_t write_reg(int index, uint16_t model, uint8_t slot, uint32_t addr);

// Prints bytes, four words a line behind their address; null data prints nothing.
void process_recvbuf(const uint8_t* data, uint32_t addr, int length);

void usage(); // prints what a command line may say

// A hook for msg_recv; none at start.
extern void (*read_buffer)(const uint8_t* payload, uint32_t addr, uint16_t len);

// Waits for a reply on link 0 that comes while the hook is set, and hands it over. Result: 0. Must not run beside that
// link's receive thread: both use the process's one receive buffer.
int32_t msg_recv();

// Points standard output at the terminal that the command "tty" names, if there is one.
void ptoc();

} // namespace rvk
