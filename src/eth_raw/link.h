// The card links: one record per interface, its raw socket, and the mutex that serialises sends on it.
//
// Links are opened by the main thread; the status thread, which runs before, looks only at those that are active. Their
// sockets stay to the end of the process; a link counts as closed while its device is gone. Interfaces
// are left in promiscuous mode: the cards send to a fixed address that is not the interface's own.
#pragma once

#include "base/board.h"
#include "base/mutex.h"

#include <atomic>
#include <cstdint>
#include <linux/if_packet.h>

namespace rvk {

extern const char g_netdev_name[MAX_ETH][20];

struct eth_init {
    int index;
    char if_name[20];
    std::atomic<int> active; // 1 while the socket is open and, where the link has threads, both of them run
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

// Whether frames can be sent and answered. Any thread.
[[nodiscard]] bool is_open(const eth_init& link);

// Looks after a link that was opened: a device that is gone closes it, one that came back (made anew, under another
// interface index) is bound again, and a promiscuous flag that somebody cleared is set again. The status thread, twice
// a second; never a link's own threads, since the kernel's locks for this may be held long.
void watch_link(int index);

// Frames that the link's socket had no room for, since this was asked last; 0 when it cannot be said. Any thread.
[[nodiscard]] uint32_t take_kernel_drops(int index);

// Fills one record. Result: 0; -1 for an index above 2 (the record is then not looked at) or a socket that cannot be
// opened; the negative result of socket_bind, with the socket closed again.
// operation  who reports a socket that cannot be opened
[[nodiscard]] int32_t init_netdev(eth_init* record, unsigned index, const char* operation = "init_netdev");

// Result: a raw socket that receives every frame of the interface, now promiscuous; -1 on failure.
[[nodiscard]] int socket_init(const char* if_name);

// Fills the address with the interface's index and binds the socket to it. Result: 0 or the failing call's.
[[nodiscard]] int socket_bind(sockaddr_ll* sll, int sock_fd, const char* if_name);

} // namespace rvk
