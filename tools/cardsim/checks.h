// What a card looks at before it obeys: every request frame is checked whole, and one that no controller should ever
// send is refused by name. Pure: bytes in, a verdict and the fields out. Called by the card farm and by tests.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace rvk {

enum class verdict : uint8_t {
    good,
    foreign,           // not from the controller's address: other people's traffic, no mistake
    wrong_destination, // from here on: a frame of the controller that it should not have sent
    wrong_type,
    wrong_sync,
    too_short_for_header,
    unknown_code,
    len_zero,
    len_above_max,
    shorter_than_len, // the frame ends before the payload area and checksum that code and len call for
    longer_than_len,
    wrong_checksum,
    padding_not_zero,   // bytes between a short write's data and the end of its 64
    read_area_not_zero, // the 64 bytes that a read carries
    plain_write_numbered,
};
inline constexpr size_t verdict_count = static_cast<size_t>(verdict::plain_write_numbered) + 1;

[[nodiscard]] const char* name_of(verdict v); // as in the enumeration, for people

// A good request's fields. `data` points into the frame it was taken from: `len` bytes of a write, none of a read.
struct request_fields {
    uint16_t model = 0;
    uint8_t slot = 0;
    uint16_t seq = 0;
    uint8_t code = 0;
    uint32_t addr = 0;
    uint16_t len = 0;
    std::span<const uint8_t> data;
};

// Checks one received frame of any length. The first thing wrong decides; `out` is written when the verdict is good.
[[nodiscard]] verdict check_request(std::span<const uint8_t> frame, request_fields& out);

} // namespace rvk
