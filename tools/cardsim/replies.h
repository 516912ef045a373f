// Frames that go from a card to the controller: one packed reply, and room for it.
// The farm fills them, the link sends them; tests that play a card themselves may pack their own.
#pragma once

#include "cardsim/checks.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace rvk {

inline constexpr size_t reply_data_max = 2000; // ours: more than any card gives, so that too much can be sent
inline constexpr size_t reply_room = 8192;     // ours: a packet of the older block protocol, trailing bytes

// One frame on its way out. Thousands are made: nothing behind `length` is ever cleared or copied.
struct reply_frame {
    reply_frame() {} // NOLINT: not defaulted, which would clear the bytes
    reply_frame(const reply_frame& other) { assign(other.view()); }
    reply_frame& operator=(const reply_frame& other)
    {
        if (this != &other) { assign(other.view()); }
        return *this;
    }
    void assign(std::span<const uint8_t> frame) // at most reply_room bytes
    {
        length = frame.size();
        std::copy(frame.begin(), frame.end(), bytes.begin());
    }
    std::span<const uint8_t> view() const { return {bytes.data(), length}; }

    size_t length = 0;
    std::array<uint8_t, reply_room> bytes;
};

// The answer to `request` with the card's status, the code of the answer, and its data (at most reply_data_max bytes).
void pack_reply(reply_frame& out, const request_fields& request, uint8_t status, uint8_t code,
                std::span<const uint8_t> data);

// Recomputes the checksum over everything between sync bytes and checksum, whatever `len` says.
void close_reply(reply_frame& frame);

} // namespace rvk
