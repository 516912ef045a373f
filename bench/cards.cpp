#include "cards.h"

#include "eth_raw/bus_block.h"
#include "harness.h"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <linux/filter.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/socket.h>
#include <thread>

namespace rvk::bench {
namespace {

constexpr int buffer_bytes = 256 << 20;
constexpr size_t foreign_frames = 100; // frames of other programs meanwhile

std::array<uint8_t, bus_packet_max> received; // as the daemon's: one for the process

} // namespace

simulated_cards::simulated_cards(int priority, const std::string& interface)
{
    const frame_bytes pattern(frame_data_max, 0x5A);
    farm.with({model, slot}, [&](sim_card& c) { c.registers.write(addr, pattern); });
    const std::string error = link.start({interface, processor, priority, buffer_bytes});
    require(error.empty(), error);
}

simulated_cards::~simulated_cards()
{
    require(farm.counts().refused() == 0, "cards refused frames: " + farm.counts().refusals());
    require(link.dropped() == 0, "the cards could not keep up, frames were dropped");
}

std::vector<frame_bytes> simulated_cards::arriving(size_t max, const std::function<void()>& work)
{
    const auto keep = [this](size_t frames) { farm.with([frames](farm_content& c) { c.trail.keep(frames); }); };
    keep(2 * max + foreign_frames); // an answer each
    work();
    std::vector<frame_bytes> frames;
    for (const kept_frame& kept : farm.with([](farm_content& c) { return c.trail.frames(); })) {
        const bool is_request =
            std::ranges::equal(eth_raw_tx_header, std::span(kept.bytes).first(eth_raw_tx_header.size()));
        if (is_request && frames.size() < max) { frames.push_back(kept.bytes); }
    }
    keep(0);
    require(!frames.empty(), "nothing arrived at the cards");
    return frames;
}

bool simulated_cards::has_played(const std::string& line)
{
    return farm.with([&](farm_content& c) { return std::ranges::count(c.playback.lines(), line) > 0; });
}

std::vector<uint8_t> simulated_cards::picture(uint8_t buffer)
{
    return farm.with({model, slot}, [buffer](const sim_card& card) {
        const auto record = card.buffers.find(buffer);
        return record == card.buffers.end() ? frame_bytes{} : picture_from(card.pictures, record->second);
    });
}

stamps::stamps(uint32_t of, const char* interface) : fd(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0))
{
    constexpr auto type_of_packet = static_cast<uint32_t>(SKF_AD_OFF + SKF_AD_PKTTYPE);
    sock_filter steps[] = {BPF_STMT(BPF_LD | BPF_B | BPF_ABS, type_of_packet),
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, PACKET_OUTGOING, 2, 0),
                           BPF_STMT(BPF_LD | BPF_W | BPF_ABS, request::addr), // the frame's is little-endian
                           BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, __builtin_bswap32(of), 1, 0),
                           BPF_STMT(BPF_RET | BPF_K, 0),
                           BPF_STMT(BPF_RET | BPF_K, 1)};
    const sock_fprog program{std::size(steps), steps};
    const int on = 1;
    sockaddr_ll at{};
    at.sll_family = AF_PACKET;
    at.sll_protocol = htons(ETH_P_ALL);
    at.sll_ifindex = static_cast<int>(if_nametoindex(interface));
    require(setsockopt(fd.get(), SOL_SOCKET, SO_ATTACH_FILTER, &program, sizeof program) == 0 &&
                setsockopt(fd.get(), SOL_SOCKET, SO_TIMESTAMPNS, &on, sizeof on) == 0 &&
                setsockopt(fd.get(), SOL_SOCKET, SO_RCVBUFFORCE, &buffer_bytes, sizeof buffer_bytes) == 0 &&
                bind(fd.get(), reinterpret_cast<const sockaddr*>(&at), sizeof at) == 0,
            "no stamps of frames can be had");
}

double stamps::ns_per_frame() const
{
    double first = 0, last = 0;
    size_t frames = 0;
    for (;; ++frames) {
        alignas(cmsghdr) char control[64];
        uint8_t byte = 0;
        iovec into{&byte, 1};
        msghdr message{};
        message.msg_iov = &into;
        message.msg_iovlen = 1;
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        if (recvmsg(fd.get(), &message, MSG_DONTWAIT) < 0) { break; }
        timespec stamp{};
        memcpy(&stamp, CMSG_DATA(CMSG_FIRSTHDR(&message)), sizeof stamp);
        last = static_cast<double>(stamp.tv_sec % 1'000'000) * 1e9 + static_cast<double>(stamp.tv_nsec);
        if (frames == 0) { first = last; }
    }
    require(frames > 1, "the frames to be timed did not arrive");
    return (last - first) / static_cast<double>(frames - 1);
}

frame_bytes ready_made(uint8_t code, uint32_t at, uint16_t seq, size_t data_bytes)
{
    frame_bytes buffer(request_bytes_max);
    uint8_t* start = buffer.data() + request::payload;
    for (size_t i = 0; code != code_read && i < data_bytes; ++i) { start[i] = static_cast<uint8_t>(i * 3); }
    buffer.resize(RawMsgHeaderPack(model, slot, code, at, seq, &start, static_cast<uint16_t>(data_bytes)));
    return buffer;
}

bare_link::bare_link(int socket) : fd(socket)
{
    socklen_t size = sizeof to;
    require(getsockname(fd, reinterpret_cast<sockaddr*>(&to), &size) == 0, "the link's socket is not bound");
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &buffer_bytes, sizeof buffer_bytes); // for replies nobody takes yet
}

void bare_link::send(const frame_bytes& frame) const
{
    const ssize_t sent = sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    require(sent == static_cast<ssize_t>(frame.size()), "a bare send failed");
}

void bare_link::receive() const
{
    require(recvfrom(fd, received.data(), received.size(), 0, nullptr, nullptr) > 0, "a bare receive failed");
}

void bare_link::receive_by_thread()
{
    has_thread = true;
    std::thread([this] {
        for (take_processor(receive_priority);; answered.post()) { receive(); }
    }).detach();
}

void bare_link::await_answer() { has_thread ? answered.wait() : receive(); }

void bare_link::exchange(const frame_bytes& frame)
{
    send(frame);
    if (frame[request::code] != code_write) { await_answer(); }
}

void bare_link::drain() const
{
    while (recvfrom(fd, received.data(), received.size(), MSG_DONTWAIT, nullptr, nullptr) > 0) {}
}

} // namespace rvk::bench
