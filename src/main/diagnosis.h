// Diagnostics for people at the bench, none of which the daemon calls: register peek and poke, and the LVDS test. Owns
// the hook read_buffer. What is printed goes to standard output.
#pragma once

#include <cstdint>

namespace rvk {

// What became of a read.
struct reg_answer {
    uint8_t ack;       // the answer's status: 0 good, 255 none came, other: the card's refusal
    uint32_t received; // bytes printed
};

// Reads `length` bytes, 1 to 1,400, of a link (0 to 2) and card address, and prints what came; a read that fails prints
// the address alone. Waits for the card, at most three periods of 180 ms. Any thread but the link's own two.
// Result  0 when data came, negative otherwise; in `answer`, which may be null, more of it
int32_t read_reg(int index, uint16_t model, uint8_t slot, uint32_t addr, int length, reg_answer* answer = nullptr);

// Prints bytes, four words a line behind their address, and flushes; null data prints nothing.
void process_recvbuf(const uint8_t* data, uint32_t addr, int length);
void usage(); // prints what a command line may say

// Starts the LVDS test's thread, SCHED_FIFO 88; it has no stop. Started at every boot it collects one line per boot in
// /root/lvds_check.txt. Link 0 must be open with both of its threads. Result: 0, or -1 (logged).
int32_t LvdsTestTaskCreate(int argument);

// Its body: waits until the LVDS link behind card link 0 is well, records how many answers said otherwise, and reboots.
void LvdsTest(int argument);

// Nothing calls these.

// Writes one zero byte and waits as read_reg does. Result: 0 when an answer came, good or not; negative otherwise.
int32_t write_reg(int index, uint16_t model, uint8_t slot, uint32_t addr);

// Waits, without bound, for a reply on link 0 that comes while `read_buffer` is set, and calls it; earlier ones are
// dropped. Result: 0. Not beside link 0's receive thread.
int32_t msg_recv();
extern void (*read_buffer)(const uint8_t* payload, uint32_t addr, uint16_t len);

// Points standard output at the terminal that the command "tty" names, if there is one.
void ptoc();

} // namespace rvk
