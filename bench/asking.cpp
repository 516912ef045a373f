// See the header.
#include "asking.h"

#include "base/bytes.h"
#include "cables.h"
#include "harness.h"

#include <algorithm>
#include <cstring>
#include <string>

namespace rvk::bench {
namespace {

constexpr uint8_t link_unit = 254; // link 0

} // namespace

std::vector<uint8_t> command_message(uint8_t code, uint32_t at, size_t len, std::span<const uint8_t> payload)
{
    std::vector<uint8_t> command(message_head_bytes + payload.size());
    uint8_t* m = command.data();
    store_le32(m + message::aptid, requester_identity);
    store_le16(m + message::msg_class, static_cast<uint16_t>(data_class));
    store_le32(m + message::data_len, static_cast<uint32_t>(data_head_bytes + payload.size()));
    m[message::id] = link_unit;
    m[message::code] = code;
    m[message::slot] = slot;
    store_le16(m + message::model, model);
    store_le32(m + message::addr, at);
    store_le16(m + message::len, static_cast<uint16_t>(len));
    std::copy(payload.begin(), payload.end(), m + message::payload);
    return command;
}

asking_process::asking_process()
{
    if (asker.open(requester_identity) != endpoint_status::ok) { fail("the requester has no endpoint"); }
}

void asking_process::exchange(uint32_t destination, const std::vector<uint8_t>& command, size_t answer_bytes)
{
    const int error = local::send_datagram(asker.descriptor(), destination, command);
    if (error != 0) { fail(std::string("a command cannot be sent: ") + strerror(error)); }
    const ssize_t length = local::receive_datagram(asker.descriptor(), incoming, 0);
    if (length != static_cast<ssize_t>(message_head_bytes + answer_bytes) ||
        load_le32(incoming.bytes + message::result) != 0) {
        fail("a command that asks for " + std::to_string(answer_bytes) + " bytes was answered with a message of " +
             std::to_string(length) + ", or with a failure: did something of higher priority keep the processor?");
    }
}

} // namespace rvk::bench
