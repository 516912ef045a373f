// A read as another process sees it: requester, messaging service, rvkd, card, and back. Against it a relay of one
// thread that makes only the four system calls, for the same requester.
//
// The daemon is the real rvkd. While the relay is measured rvkd is stopped, and the relay uses a copy of rvkd's own
// packet socket: one of its own would burden both sides with a copy of every frame.
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/pause.h"
#include "cables.h"
#include "eth_raw/frame.h"
#include "harness.h"
#include "platform/local/endpoint.h"
#include "processes.h"
#include "requester/requester.h"
#include "rows.h"

#include <cstring>
#include <string>
#include <sys/socket.h>
#include <vector>

namespace rvk::bench {
namespace {

constexpr size_t exchanges = 2000;
constexpr uint8_t relay_board = 200, requester_board = 201; // of nobody else's
constexpr uint32_t relay_identity = identity_of(relay_board, module_tools);
constexpr uint32_t requester_identity = identity_of(requester_board, module_tools);

std::vector<uint8_t> read_command(size_t bytes)
{
    std::vector<uint8_t> command(message_head_bytes);
    uint8_t* m = command.data();
    store_le32(m + message::aptid, requester_identity);
    store_le16(m + message::msg_class, static_cast<uint16_t>(data_class));
    store_le32(m + message::data_len, data_head_bytes);
    m[message::id] = 254;
    m[message::code] = command::read;
    m[message::slot] = slot;
    store_le16(m + message::model, model);
    store_le32(m + message::addr, addr);
    store_le16(m + message::len, static_cast<uint16_t>(bytes));
    return command;
}

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

// One requester for both sides. Result: nanoseconds per read.
class asking_process {
public:
    asking_process()
    {
        if (asker.open(requester_identity) != endpoint_status::ok) { fail("the requester has no endpoint"); }
    }

    double reads(uint32_t destination, size_t bytes)
    {
        const std::vector<uint8_t> command = read_command(bytes);
        return time_per_unit(exchanges, [&] {
            for (size_t i = 0; i < exchanges; ++i) { exchange(destination, command, bytes); }
        });
    }

private:
    void exchange(uint32_t destination, const std::vector<uint8_t>& command, size_t bytes)
    {
        const int error = local::send_datagram(asker.descriptor(), destination, command);
        if (error != 0) { fail(std::string("a command cannot be sent: ") + strerror(error)); }
        const ssize_t length = local::receive_datagram(asker.descriptor(), incoming, 0);
        if (length != static_cast<ssize_t>(message_head_bytes + bytes)) {
            fail("a read of " + std::to_string(bytes) + " bytes was answered with a message of " +
                 std::to_string(length) + ": did something of higher priority keep the processor?");
        }
    }

    requester asker;
    local::receive_buffer incoming;
};

} // namespace

void messaging_row(const settings& chosen)
{
    const simulated_cards cards(card_priority);
    const child daemon = start_daemon();
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
            chosen.rounds, [&] { return asker.reads(own_identity(), bytes); },
            [&] {
                daemon.stop();
                const double taken = asker.reads(relay_identity, bytes);
                daemon.go_on();
                return taken;
            });
        print_ratio("read of " + std::to_string(bytes) + " bytes by another process, through rvkd",
                    "a relay of one thread with the same four system calls", "ns per read", found, 1.25);
    }
}

} // namespace rvk::bench
