// The card links, single frames to and from the cards, and the frame buffers in which frames are built in place. Owns
// one record per link (interface, raw socket, the mutex around each send), opened by the main thread at start. The
// daemon's sockets stay open to its end; a link counts as closed while its device is gone. Interfaces are left in
// promiscuous mode: the cards send to a fixed address that is not the interface's own. Any thread sends, under the
// link's send_mutex; the link's receive thread receives; the status thread watches. Resending is raw_msg's task.
// index, model, slot, addr: the card link (0 to 2) and the card's address on it, as the frame carries them. A frame
// buffer is a pool block, owned by who got it; its handle is the payload, the frame starts 28 bytes before it.
#pragma once

#include "base/board.h"
#include "base/mutex.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <linux/if_packet.h>

namespace rvk {

extern const char g_netdev_name[MAX_ETH][20];
struct eth_init {
    int index;
    char if_name[20];
    std::atomic<int> active; // 1 once the socket is bound; 0 where the link's two threads could not be started
    int sock_fd;
    sockaddr_ll sll;  // of the bind, and the destination of every send
    mutex send_mutex; // around each send; ready from the start
    // ours:
    std::atomic<bool> missing; // its device is gone: closed until watch_link() has bound the socket to it again
};

extern eth_init g_eth_init[MAX_ETH]; // zero until a link is opened

// Opens a link into its record. Result: 0, or -1 on any failure, which is logged. Main thread, at start.
[[nodiscard]] int32_t RawSockMsgInit(int index);

// Closes a link's socket; the record keeps the rest. Only when no thread uses the link any more.
void RawSockMsgUnInit(int index);

// The steps of RawSockMsgInit. This one fills a record; one that was open keeps its socket when this fails.
// operation  who reports a socket that cannot be opened
// Result     0; -1: an index above 2 (the record is not looked at), or no socket; else socket_bind's
[[nodiscard]] int32_t init_netdev(eth_init* record, unsigned index, const char* operation = "init_netdev");

// Result: a raw socket that receives every frame of the interface, now promiscuous; -1, logged, on failure.
[[nodiscard]] int socket_init(const char* if_name);

// Puts the interface's index into the address and binds the socket to it. Result: 0, or the failing call's.
[[nodiscard]] int socket_bind(sockaddr_ll* sll, int sock_fd, const char* if_name);

// Whether frames can be sent and answered. Any thread.
[[nodiscard]] bool is_open(const eth_init& link);

// Looks after a link that was opened: a device that is gone closes it, one that came back (made anew, under another
// interface index) is bound again, and a promiscuous flag that somebody cleared is set again. The status thread, twice
// a second; never a link's own threads, since the kernel's locks for this may be held long.
void watch_link(int index);

// Frames for which the link's socket had no space since this was asked last; 0 when it cannot be said. Any thread.
[[nodiscard]] uint32_t take_kernel_drops(int index);

inline constexpr size_t receive_bytes = 1450; // card: no reply is longer

// The process's one receive buffer, the one receive thread's. A received payload is valid until the next receive.
extern uint8_t gRecvBuffer[receive_bytes];

// Result: a zero-filled buffer for len payload bytes (and at least 64); null, and logged, above 1,400 or when the pool
// has none.
[[nodiscard]] uint8_t* RawMsgBuffGet(unsigned len);
[[nodiscard]] uint8_t* RawMsgBuffHeadGet(uint8_t* payload); // where the frame around a payload starts
void RawMsgBuffFree(uint8_t* payload);
void RawMsgFreeBuf(uint8_t* payload); // the same, for whoever ends a request

// Builds the frame in its buffer and sends it; on success the buffer holds the frame as RawSockMsgSendAgain takes it.
// payload, len  a frame buffer's payload, 1 to 1,400 bytes; for a read the bytes asked for
// Result        the frame's length in bytes; -1 when refused (no such link, link not open, length) or not sent whole
// Threads       any; a socket that would block is tried again once, 1 ms later
[[nodiscard]] int32_t RawSockMsgSend(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code, uint16_t seq,
                                     uint8_t* payload, unsigned len);

// Sends the frame that stands packed in its buffer, frame_bytes long. len: its payload's; the rest as RawSockMsgSend.
[[nodiscard]] int32_t send_packed(int index, uint8_t* payload, unsigned frame_bytes, unsigned len);

// Sends a frame again, byte for byte. Result: `frame_bytes`, or -1.
// error  out: errno of a send that failed, otherwise left as it is; without it, that errno is printed
int32_t RawSockMsgSendAgain(int index, uint8_t* payload, unsigned frame_bytes, int* error = nullptr);
void print_send_error(int error);

// Waits for one frame. Result: the payload of a valid reply, with its fields in the out-parameters; null for anything
// else. A receive that fails (link down, socket gone) is logged once, and each such call lasts 100 ms.
[[nodiscard]] const uint8_t* RawSockMsgRecv(int index, uint8_t* ack, uint16_t* model, uint8_t* slot, uint32_t* addr,
                                            uint8_t* code, uint16_t* seq, uint16_t* len);

// Dumps a frame to standard output as hex when print_flag is set.
void print_msg(const uint8_t* frame, size_t count);

// For other programs; nobody here calls them: a table of 1,000 small buffers of 64 bytes, handed out in turn. The
// handle is the entry's own block. Any thread; the table has a lock of its own.
[[nodiscard]] int32_t RawMsgInitMinBuffer(); // 0, or -1 at the first block that cannot be had; those before it stay
void RawMsgUninitMinBuffer();                // frees all blocks, also those that somebody still holds
[[nodiscard]] uint8_t* RawMsgMinBuffGet();   // the next entry's block; null, logged, when that has none or is in use
void RawMsgMinBuffFree(uint8_t* block);      // a pointer that is no entry's is refused and logged

} // namespace rvk
