// How much waits in the sockets' buffers before something is lost or has to wait: what packaging/systemd/sysctl.d sets,
// counted. Prints the machine's usual values beside ours.
//
// Run it by scripts/in-bench build/release/bin/rvk-buffers. The buffers' sizes are forced on sockets of its own, since
// the settings are the whole machine's; the length of the queue is the bench's own.
#include "base/fd.h"

#include <arpa/inet.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <vector>

namespace {

using rvk::unique_fd;

constexpr int usual = 212'992, ours = 8'388'608; // bytes: net.core.*mem_default
constexpr int usual_queue = 10, our_queue = 64;  // messages: net.unix.max_dgram_qlen
constexpr int daemon_buffer = 256 << 20;         // bytes: of its endpoint
constexpr size_t short_frame = 47, long_frame = 1'431, short_message = 44, long_message = 1'440; // bytes

void require(bool done, const char* what)
{
    if (done) { return; }
    fprintf(stderr, "rvk-buffers: %s: %s; run it on the bench\n", what, strerror(errno));
    exit(1);
}

unique_fd open_link(const char* name, uint16_t protocol)
{
    unique_fd fd{socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC | SOCK_NONBLOCK, htons(protocol))};
    sockaddr_ll to{};
    to.sll_family = AF_PACKET;
    to.sll_protocol = htons(protocol);
    to.sll_ifindex = static_cast<int>(if_nametoindex(name));
    require(fd && bind(fd.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) == 0, name);
    return fd;
}

void force(const unique_fd& fd, int option, int bytes)
{
    const int half = bytes / 2; // the kernel doubles it
    require(setsockopt(fd.get(), SOL_SOCKET, option, &half, sizeof half) == 0, "buffer size");
}

// How many sends succeed before one would have to wait.
int sends(const unique_fd& fd, size_t bytes, int at_most)
{
    std::vector<uint8_t> data(bytes);
    if (bytes >= ETH_HLEN) { data[12] = 0x88, data[13] = 0xB5; } // a type for experiments
    int done = 0;
    while (done < at_most && send(fd.get(), data.data(), data.size(), 0) >= 0) { ++done; }
    return done;
}

int unread_frames(int buffer_bytes, size_t frame_bytes)
{
    const unique_fd reader = open_link("eth0", ETH_P_ALL);
    force(reader, SO_RCVBUFFORCE, buffer_bytes);
    const unique_fd card = open_link("card0", 0);
    constexpr int more_than_fit = 20'000;
    static_cast<void>(sends(card, frame_bytes, more_than_fit));
    uint8_t frame[2'048];
    int read = 0;
    while (recv(reader.get(), frame, sizeof frame, 0) > 0) { ++read; }
    return read;
}

void set_queue(int messages) { std::ofstream("/proc/sys/net/unix/max_dgram_qlen") << messages << std::flush; }

sockaddr_un address_of(int number)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof address.sun_path, "/run/rvk-bench/buffers%d.sock", number);
    unlink(address.sun_path);
    return address;
}

// Binds `reader`, which never reads, and fills its queue from `sender`. Result: messages that it took.
int fill(const unique_fd& sender, unique_fd& reader, int number, size_t message_bytes)
{
    const sockaddr_un address = address_of(number);
    const auto* name = reinterpret_cast<const sockaddr*>(&address);
    reader = unique_fd{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    require(reader && bind(reader.get(), name, sizeof address) == 0, address.sun_path);
    require(connect(sender.get(), name, sizeof address) == 0, address.sun_path);
    return sends(sender, message_bytes, 100'000);
}

// Messages that wait for one that does not read.
int waiting_messages(int queue, size_t message_bytes)
{
    set_queue(queue);
    const unique_fd sender{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    unique_fd reader;
    return fill(sender, reader, 0, message_bytes);
}

// Requesters that never read, before what waits for them fills the send buffer that the daemon forces.
int silent_requesters(int queue, size_t message_bytes)
{
    set_queue(queue);
    const unique_fd sender{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)};
    force(sender, SO_SNDBUFFORCE, 2 * daemon_buffer);
    std::vector<unique_fd> readers;
    int last = 0;
    do {
        last = fill(sender, readers.emplace_back(), static_cast<int>(readers.size()), message_bytes);
    } while (last > queue && readers.size() < 10'000);
    return static_cast<int>(readers.size()) - 1;
}

} // namespace

int main()
{
    require(getenv("RVK_BENCH") != nullptr, "RVK_BENCH");
    const rlimit files{20'000, 20'000};
    require(setrlimit(RLIMIT_NOFILE, &files) == 0, "descriptors");
    const auto row = [](const char* what, int usually, int now) { printf("%-72s %6d %6d\n", what, usually, now); };
    printf("%-72s %6s %6s\n", "", "usual", "ours");
    row("rmem_default: 47-byte replies while rvk-recv does not run", unread_frames(usual, short_frame),
        unread_frames(ours, short_frame));
    row("rmem_default: 1,431-byte replies", unread_frames(usual, long_frame), unread_frames(ours, long_frame));
    row("max_dgram_qlen: messages of 44 bytes", waiting_messages(usual_queue, short_message),
        waiting_messages(our_queue, short_message));
    row("max_dgram_qlen: requesters that never read, answers of 44 bytes",
        silent_requesters(usual_queue, short_message), silent_requesters(our_queue, short_message));
    row("max_dgram_qlen: the same, answers of 1,440 bytes", silent_requesters(usual_queue, long_message),
        silent_requesters(our_queue, long_message));
}
