// Request frames for tests that talk to a card themselves, packed by the daemon's own code, and replies made readable.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace rvk {

struct test_request {
    uint8_t code = 0;
    uint32_t addr = 0x1000;
    uint16_t seq = 0;
    uint16_t model = 0;
    uint8_t slot = 1;
};

// A whole frame that writes `data` (1 to 1,400 bytes), or that reads `len` bytes.
[[nodiscard]] std::vector<uint8_t> write_frame(const test_request& request, std::span<const uint8_t> data);
[[nodiscard]] std::vector<uint8_t> read_frame(const test_request& request, uint16_t len);

// Corrects the checksum of a frame that was tampered with.
void close_request(std::vector<uint8_t>& frame);

// What the daemon's receiving side makes of a frame: "code/status/len" of a valid reply, as in "11/0/0", or "-".
[[nodiscard]] std::string as_seen(std::span<const uint8_t> reply);

} // namespace rvk
