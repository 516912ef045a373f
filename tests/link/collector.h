// The messaging service's place in a test: keeps what the daemon sends to requesters instead of sending it.
// Linked in the place of the platform's apipc_send. Any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace rvk {

struct collected_message {
    uint32_t destination;
    std::vector<uint8_t> bytes;
};

// What was sent since the last call.
[[nodiscard]] std::vector<collected_message> take_messages();

} // namespace rvk
