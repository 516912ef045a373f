// What the transport reports of asynchronous requests, kept for the command that waits for it.
#pragma once

#include "queue/queue.h"

#include <cstdint>
#include <vector>

namespace rvk::diag {

struct report {
    uint32_t addr = 0;         // of the request
    int32_t result = 0;        // 0, or -1: given up
    bool answered = false;     // by the card, with data or a refusal; false: the time ran out
    std::vector<uint8_t> data; // of a read
};

// For the transport's `request_ended`. A link's threads.
void keep_report(const QNode* node, int32_t result);

// Waits until no request is pending any more. Result: what was reported since the last call, oldest first.
[[nodiscard]] std::vector<report> await_reports();

} // namespace rvk::diag
