// The messaging service's place in this process: keeps what the transport reports of asynchronous requests, for the
// command that waits for it. Its apipc_send is linked in place of the platform's; nothing leaves this process.
#pragma once

#include <cstdint>
#include <pthread.h>
#include <vector>

namespace rvk::diag {

struct report {
    uint32_t addr = 0;         // of the request
    int32_t result = 0;        // 0, or -1: given up
    pthread_t reported_by{};   // the check thread: at an expiry; any other: at an answer
    std::vector<uint8_t> data; // of a read
};

// What was reported since the last call, oldest first. Any thread.
[[nodiscard]] std::vector<report> take_reports();

// Waits until no request is pending in a queue of the link; what they reported can then be taken.
void await_end(int link, int queue);

} // namespace rvk::diag
