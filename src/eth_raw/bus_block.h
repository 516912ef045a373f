// The older block link whole: rvkbus.h, the steps that its block operations are made of, and its semaphore. Owns the
// semaphore's identifier; the records of the links are the link table's. Tests and tools take the steps; other
// programs stay with rvkbus.h.
#pragma once

#include "eth_raw/link.h"
#include "eth_raw/rvkbus.h"

namespace rvk {

// What one read tries: packets received for each piece, and the result that ends it, since the card refused.
inline constexpr int bus_answer_tries = 10; // ours
inline constexpr int32_t bus_read_refused = -2;

// Results 0 or negative unless said; parameters as in rvkbus.h, handles and pointers not null. None of these takes the
// semaphore.
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
// Result  0; 1 for a good response; -1: not that answer; -2: the card refused the read
int32_t recv_message_func_unit(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination, uint8_t kind);
int32_t recv_read_back_message_func(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination);
int32_t recv_response_message_func(const xfer* handle, uint32_t addr, uint32_t length); // 0 or -1; nobody calls it

// The System V semaphore around whole block operations, one for all processes of the controller. Both of its changes
// are undone by the system when a process dies inside an operation. Opened by the thread that opens the links.
extern int sem_id; // its identifier, -1 without one; of the last opening, also after the semaphore is removed

// Creates the semaphore with the value 1, or attaches to the one there is. Result: 0, also when none could be had
// (which is logged); -1 when a new one could not be given its value.
[[nodiscard]] int32_t open_semaphore();
int32_t set_semvalue(); // 1: free
void del_semvalue();    // removes it, for all processes

// Take and give back; the first waits without bound.
[[nodiscard]] int32_t semaphore_p();
[[nodiscard]] int32_t semaphore_v();

} // namespace rvk
