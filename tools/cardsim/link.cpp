#include "cardsim/link.h"

#include "base/clock.h"
#include "base/rt_thread.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <linux/if_packet.h>
#include <memory>
#include <net/ethernet.h>
#include <net/if.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace rvk {
namespace {

constexpr size_t batch_frames = 64;      // ours: frames per system call
constexpr size_t frame_bytes_max = 8192; // ours: a longer frame is cut, and then does not fit its own length
constexpr int idle_ms = 50;              // ours: how long a quiet thread sleeps before it looks whether it is to stop

uint64_t now_us()
{
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(now).count());
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
    const std::string& name = options.interface;
    if (!set(fd, SOL_SOCKET, SO_RCVBUFFORCE, options.receive_buffer_bytes)) {
        return failed(name, "no large receive buffer (needs root, as inside scripts/in-bench)");
    }
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

// Makes the calling thread what the options ask for. Result: as of card_link::start.
std::string prepare_thread(const link_options& options)
{
    pthread_setname_np(pthread_self(), "card_link");
    const sched_param urgent{.sched_priority = options.priority};
    if (options.priority > 0 && pthread_setschedparam(pthread_self(), SCHED_FIFO, &urgent) != 0) {
        return "interface " + options.interface + ": no thread of priority " + std::to_string(options.priority);
    }
    if (options.processor < 0 || pin_to_processor(options.processor) == 0) { return {}; }
    return "interface " + options.interface + ": no processor " + std::to_string(options.processor) + " to pin to";
}

// A batch of frames and the records that the kernel fills in.
struct receive_batch {
    std::array<std::array<uint8_t, frame_bytes_max>, batch_frames> frames;
    std::array<iovec, batch_frames> parts;
    std::array<sockaddr_ll, batch_frames> senders;
    std::array<mmsghdr, batch_frames> headers{};
    receive_batch()
    {
        for (size_t i = 0; i < batch_frames; ++i) {
            parts[i] = {frames[i].data(), frame_bytes_max};
            headers[i].msg_hdr.msg_iov = &parts[i];
            headers[i].msg_hdr.msg_iovlen = 1;
            headers[i].msg_hdr.msg_name = &senders[i];
            headers[i].msg_hdr.msg_namelen = sizeof senders[i]; // a packet socket's are all as long
        }
    }
    bool is_our_own(size_t i) const { return senders[i].sll_pkttype == PACKET_OUTGOING; }
};

} // namespace

std::string card_link::start(const link_options& options)
{
    if (thread.joinable()) { return "interface " + options.interface + ": its cards are running already"; }
    if (std::string error = open_socket(options, socket_fd); !error.empty()) { return error; }
    stopping = false;
    thread = std::thread([this, options] {
        failure = prepare_thread(options);
        ready.post();
        if (failure.empty()) { serve(); }
    });
    ready.wait();
    if (!failure.empty()) { stop(); }
    return failure;
}

void card_link::stop()
{
    if (!thread.joinable()) { return; }
    stopping = true;
    thread.join();
    static_cast<void>(dropped()); // the socket takes its figures with it
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
    const uint64_t now = now_us(), due_us = farm.next_due_us().value_or(UINT64_MAX);
    const uint64_t wait_us = due_us > now ? std::min<uint64_t>(due_us - now, idle_ms * 1000) : 0;
    if (!wait_readable(socket_fd.get(), (wait_us + 999) / 1000)) { return 0; }
    const int count = recvmmsg(socket_fd.get(), batch, batch_frames, MSG_DONTWAIT, nullptr);
    if (count < 0 && errno != EAGAIN && errno != EINTR) { pause_ms(10); } // the link is down; it may come back
    return std::max(count, 0);
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
            parts[i] = {replies[from + i].data(), replies[from + i].size()};
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
