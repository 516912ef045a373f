// A read as another process sees it: requester, messaging service, rvkd, card, and back. Against it a relay of one
// thread that makes only the four system calls, for the same requester.
//
// The daemon is the real rvkd. While the relay is measured rvkd is stopped, and the relay uses a copy of rvkd's own
// packet socket: one of its own would burden both sides with a copy of every frame.
#include "ap_msg/message.h"
#include "asking.h"
#include "base/bytes.h"
#include "base/clock.h"
#include "cables.h"
#include "eth_raw/frame.h"
#include "harness.h"
#include "platform/local/endpoint.h"
#include "processes.h"
#include "requester/requester.h"
#include "rows.h"

#include <string>
#include <sys/socket.h>
#include <vector>

namespace rvk::bench {
namespace {

constexpr size_t exchanges = 2000;
constexpr uint8_t relay_board = 200; // of nobody else's
constexpr uint32_t relay_identity = identity_of(relay_board, module_tools);

// The four system calls, for ever. What they need is ready before, and whom it answers is fixed.
class relay {
public:
    relay(int packet_socket, uint32_t asker) : link(packet_socket), incoming(local::datagram_bytes_max)
    {
        if (local::bind_endpoint(relay_identity, endpoint) != 0 || !local::endpoint_address(asker, to)) {
            fail("the relay has no endpoint");
        }
    }

    void serve()
    {
        for (;;) {
            if (recv(endpoint.get(), incoming.data(), incoming.size(), 0) <= 0) { fail("the relay hears nothing"); }
            prepare(load_le16(incoming.data() + message::len));
            link.send(ask);
            link.receive();
            if (sendto(endpoint.get(), answer.data(), answer.size(), 0, reinterpret_cast<const sockaddr*>(&to),
                       sizeof to) < 0) {
                fail("the relay cannot answer");
            }
        }
    }

private:
    void prepare(size_t bytes)
    {
        if (answer.size() == message_head_bytes + bytes) { return; }
        ask = ready_made(code_read, addr, 0, bytes);
        answer.assign(message_head_bytes + bytes, 0);
        store_le32(answer.data(), relay_identity);
    }

    bare_link link;
    unique_fd endpoint;
    sockaddr_un to{};
    frame_bytes ask;
    std::vector<uint8_t> incoming, answer;
};

// Nanoseconds per read.
double reads(asking_process& asker, uint32_t destination, size_t bytes)
{
    const std::vector<uint8_t> command = command_message(command::read, addr, bytes, {});
    return time_per_unit(exchanges, [&] {
        for (size_t i = 0; i < exchanges; ++i) { asker.exchange(destination, command, bytes); }
    });
}

} // namespace

void messaging_row(const settings& chosen)
{
    const simulated_cards cards(card_priority);
    const child daemon = start_daemon(cards);
    const unique_fd link = packet_socket_of(daemon.pid());
    const child bare([&link] {
        take_processor(sender_priority);
        relay(link.get(), requester_identity).serve();
    });
    asking_process asker;
    while (!local::endpoint_alive(relay_identity)) { pause_ms(1); }
    take_processor(requester_priority);
    for (const size_t bytes : {size_t{16}, frame_data_max}) {
        const auto found = compare(
            chosen.rounds, [&] { return reads(asker, own_identity(), bytes); },
            [&] {
                daemon.stop();
                const double taken = reads(asker, relay_identity, bytes);
                daemon.go_on();
                return taken;
            });
        print_ratio("read of " + std::to_string(bytes) + " bytes by another process, through rvkd",
                    "a relay of one thread with the same four system calls", "ns per read", found, 1.25);
    }
}

} // namespace rvk::bench
