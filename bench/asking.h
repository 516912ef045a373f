// The requester of the rows that go through the messaging service, and its commands.
#pragma once

#include "ap_msg/message.h"
#include "platform/local/endpoint.h"
#include "requester/requester.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace rvk::bench {

inline constexpr uint8_t requester_board = 201; // of nobody else's
inline constexpr uint32_t requester_identity = identity_of(requester_board, module_tools);

// A command for the card that every row talks to.
// len  as the command carries it: the bytes wanted of a read, otherwise those of the payload
[[nodiscard]] std::vector<uint8_t> command_message(uint8_t code, uint32_t at, size_t len,
                                                   std::span<const uint8_t> payload);

class asking_process {
public:
    asking_process();

    // Sends a command and waits for its answer: done, and with so many bytes of payload.
    void exchange(uint32_t destination, const std::vector<uint8_t>& command, size_t answer_bytes);

private:
    requester asker;
    local::receive_buffer incoming;
};

} // namespace rvk::bench
