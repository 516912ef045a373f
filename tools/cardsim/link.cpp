#include "cardsim/link.h"

#include "base/clock.h"
#include "base/rt_thread.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <linux/if_packet.h>
#include <memory>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace rvk {
namespace {

constexpr size_t batch_frames = 64; // frames per system call
constexpr size_t frame_room = 8192; // a longer frame is cut, and refused as longer than it says
constexpr int idle_ms = 50;         // how long a quiet thread sleeps before it looks whether it is to stop
constexpr size_t links_max = 8;

// A started thread is given a number only; this is where it finds its link.
std::array<std::atomic<card_link*>, links_max> running;

uint64_t now_us()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000 + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

std::string failed(const std::string& interface, const char* what)
{
    return "interface " + interface + ": " + what + ": " + std::strerror(errno);
}

template <typename Value>
bool set(int fd, int level, int option, const Value& value)
{
    return setsockopt(fd, level, option, &value, sizeof value) == 0;
}

bool is_up(int fd, const std::string& interface)
{
    ifreq wanted{};
    interface.copy(wanted.ifr_name, sizeof wanted.ifr_name - 1);
    return ioctl(fd, SIOCGIFFLAGS, &wanted) == 0 && (wanted.ifr_flags & IFF_UP) != 0;
}

// Options of packet sockets are unknown to user-mode emulators, and some to old kernels.
bool set_where_known(int fd, int option, const auto& value)
{
    return set(fd, SOL_PACKET, option, value) || errno == ENOPROTOOPT;
}

std::string configure(int fd, int index, const link_options& options)
{
    packet_mreq promiscuous{}; // counted by the kernel and given back with the socket, unlike the interface's flag
    promiscuous.mr_ifindex = index;
    promiscuous.mr_type = PACKET_MR_PROMISC;
    const timeval idle{.tv_sec = 0, .tv_usec = idle_ms * 1000};
    const std::string& name = options.interface;
    if (!set(fd, SOL_SOCKET, SO_RCVBUFFORCE, options.receive_buffer_bytes)) {
        return failed(name, "no large receive buffer (needs root, as inside scripts/in-bench)");
    }
    if (!set(fd, SOL_SOCKET, SO_RCVTIMEO, idle)) { return failed(name, "no receive timeout"); }
    // Without it what we sent comes back, and is_our_own() tells.
    if (!set_where_known(fd, PACKET_IGNORE_OUTGOING, 1)) { return failed(name, "cannot leave out sent frames"); }
    // Without it a real interface would keep most frames from us, a veth none.
    if (!set_where_known(fd, PACKET_ADD_MEMBERSHIP, promiscuous)) { return failed(name, "not promiscuous"); }
    return {};
}

// Receives nothing before it is bound: no frame of another interface ever gets in.
std::string open_socket(const link_options& options, unique_fd& out)
{
    const std::string& name = options.interface;
    unique_fd fd{::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0)};
    if (!fd) { return failed(name, "no packet socket (needs root, as inside scripts/in-bench)"); }
    const int index = static_cast<int>(if_nametoindex(name.c_str()));
    if (index == 0) {
        return "interface " + name + " does not exist: run this inside scripts/in-bench, which makes card0 to card2";
    }
    if (!is_up(fd.get(), name)) { return "interface " + name + " is down: ip link set " + name + " up"; }
    if (std::string error = configure(fd.get(), index, options); !error.empty()) { return error; }
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = index;
    if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return failed(name, "cannot be bound to");
    }
    out = std::move(fd);
    return {};
}

int take_slot(card_link* link)
{
    for (size_t i = 0; i < links_max; ++i) {
        card_link* none = nullptr;
        if (running[i].compare_exchange_strong(none, link)) { return static_cast<int>(i); }
    }
    return -1;
}

// A batch of frames and the records that the kernel fills in.
struct receive_batch {
    std::array<std::array<uint8_t, frame_room>, batch_frames> frames;
    std::array<iovec, batch_frames> parts;
    std::array<sockaddr_ll, batch_frames> senders;
    std::array<mmsghdr, batch_frames> headers{};
    receive_batch()
    {
        for (size_t i = 0; i < batch_frames; ++i) {
            parts[i] = {frames[i].data(), frame_room};
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
            headers[i].msg_hdr.msg_name = &senders[i];
            headers[i].msg_hdr.msg_namelen = sizeof senders[i]; // a packet socket's are all as long
        }
    }
    bool is_our_own(size_t i) const { return senders[i].sll_pkttype == PACKET_OUTGOING; }
};

} // namespace

void run_card_link(int slot)
{
    card_link& link = *running[static_cast<size_t>(slot)].load();
    link.pinned = link.chosen.processor < 0 || pin_to_processor(link.chosen.processor) == 0;
    link.ready.post();
    if (link.pinned) { link.serve(); }
}

std::string card_link::start(const link_options& options)
{
    if (registered >= 0) { return "interface " + chosen.interface + ": its cards are running already"; }
    if (std::string error = open_socket(options, socket_fd); !error.empty()) { return error; }
    chosen = options;
    stopping = false;
    registered = take_slot(this);
    if (registered < 0) {
        socket_fd.reset();
        return "interface " + chosen.interface + ": only " + std::to_string(links_max) + " links at once";
    }
    if (start_thread("card_link", chosen.priority, run_card_link, registered, &thread) != 0) {
        running[static_cast<size_t>(registered)] = nullptr;
        registered = -1;
        socket_fd.reset();
        return "interface " + chosen.interface + ": no thread of priority " + std::to_string(chosen.priority);
    }
    ready.wait();
    if (pinned) { return {}; }
    stop();
    return "interface " + chosen.interface + ": no processor " + std::to_string(chosen.processor) + " to pin to";
}

void card_link::stop()
{
    if (registered < 0) { return; }
    stopping = true;
    pthread_join(thread, nullptr);
    static_cast<void>(dropped()); // the socket takes its figures with it
    running[static_cast<size_t>(registered)] = nullptr;
    registered = -1;
    socket_fd.reset();
}

uint64_t card_link::dropped()
{
    tpacket_stats since_last{}; // the kernel starts over with each look
    socklen_t size = sizeof since_last;
    if (socket_fd && getsockopt(socket_fd.get(), SOL_PACKET, PACKET_STATISTICS, &since_last, &size) == 0) {
        kernel_drops += since_last.tp_drops;
    }
    return kernel_drops;
}

// Waits for frames, or for the time when a held-back reply is due. Result: frames received, 0 when there are none.
int card_link::receive(mmsghdr* batch)
{
    int flags = MSG_WAITFORONE;
    const auto due = farm.next_due_us();
    if (due || !waits_for_one) {
        const uint64_t now = now_us();
        const uint64_t until_us = due.value_or(UINT64_MAX);
        const uint64_t wait_us = until_us > now ? std::min<uint64_t>(until_us - now, idle_ms * 1000) : 0;
        if (!wait_readable(socket_fd.get(), (wait_us + 999) / 1000)) { return 0; }
        flags = MSG_DONTWAIT;
    }
    const int count = recvmmsg(socket_fd.get(), batch, batch_frames, flags, nullptr);
    if (count >= 0) { return count; }
    if (errno == EINVAL && flags == MSG_WAITFORONE) {
        waits_for_one = false; // a user-mode emulator hands that flag on to a call that does not know it
        return 0;
    }
    if (errno != EAGAIN && errno != EINTR) { pause_ms(10); } // the link is down; it may come back
    return 0;
}

void card_link::serve()
{
    const auto batch = std::make_unique<receive_batch>();
    std::vector<reply_frame> replies;
    while (!stopping.load(std::memory_order_relaxed)) {
        const int count = receive(batch->headers.data());
        const uint64_t now = now_us();
        farm.due(now, replies);
        for (size_t i = 0; i < static_cast<size_t>(count); ++i) {
            if (batch->is_our_own(i)) { continue; }
            farm.request({batch->frames[i].data(), batch->headers[i].msg_len}, now, replies);
        }
        send_all(replies);
    }
}

void card_link::send_all(std::vector<reply_frame>& replies)
{
    for (size_t from = 0; from < replies.size();) {
        std::array<iovec, batch_frames> parts;
        std::array<mmsghdr, batch_frames> headers{};
        const size_t count = std::min(replies.size() - from, batch_frames);
        for (size_t i = 0; i < count; ++i) {
            parts[i] = {replies[from + i].bytes.data(), replies[from + i].length};
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
        }
        const int sent = sendmmsg(socket_fd.get(), headers.data(), static_cast<unsigned>(count), 0);
        if (sent < 0 && errno == EINTR) { continue; }
        if (sent <= 0) { ++send_failures; } // the first of the batch cannot be sent: longer than the MTU, or link down
        from += sent > 0 ? static_cast<size_t>(sent) : 1;
    }
    replies.clear();
}

} // namespace rvk
