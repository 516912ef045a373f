// One request of each kind as a test makes it, and what its requester heard.
#pragma once

#include "link/collector.h"

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace rvk {

enum class request_kind { plain_write, reported_write, waited_write, reported_read, waited_read };
[[nodiscard]] const char* name_of(request_kind kind);

struct request_result {
    int32_t result = 0;
    uint8_t ack = 0;           // waited writes
    std::vector<uint8_t> data; // waited reads
    uint64_t took_us = 0;
};

// Sends one request to the near card: a write of pattern(addr, len), or a read of len bytes. `ticks`: the waited
// kinds'.
[[nodiscard]] request_result run_request(request_kind kind, uint32_t addr, size_t len, uint32_t ticks = 3);

// What the requester of the asynchronous kinds was told about requests to `addr`, one word a message, taken from
// `messages`: "failed", "data" (the whole pattern of addr), or "wrong" with what is wrong about it.
[[nodiscard]] std::string heard_about(uint32_t addr, const std::vector<collected_message>& messages);

} // namespace rvk
