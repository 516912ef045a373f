// Pictures into a card's picture memory: one of its two ways in, as control writes and a stream of data frames.
//
// Where a buffer lies in card memory is the simulated cards' own choice: buffer n begins at byte n x 128 MiB, that is
// at word n x 0x1000000 of a read command. From there on lie the picture's lines, first line first, each padded to 64
// bytes, laid out as the controller reads them back: 1,400 bytes to each 1,408 of card memory, since that is how far
// apart its steps are. So a picture that was put is what a read-back from the buffer's start gets. Padding and gaps
// keep what they held before. Pure state: no lock, no clock; a farm's lock guards it.
#pragma once

#include "base/picture.h"
#include "cardsim/mistakes.h"
#include "cardsim/sparse_pages.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <span>
#include <vector>

namespace rvk {

// Card memory behind the picture ports and the read-back, by byte. Written at wire speed: a page per 64 KiB is the only
// allocation, and only when the memory was never written there.
using picture_memory = sparse_pages<size_t{64} * 1024>;

inline constexpr uint64_t buffer_room = uint64_t{128} << 20; // bytes
inline constexpr size_t step_bytes = 1400, step_room = 1408; // of a step, and from one step to the next
inline constexpr size_t read_unit = 64, read_word = 8;       // bytes

constexpr uint64_t buffer_start(uint8_t buffer) { return buffer * buffer_room; } // in bytes

struct picture_record {
    uint8_t buffer = 0;
    uint16_t hor = 0, ver = 0;
    uint64_t received = 0; // bytes taken
    bool whole = false;    // ended, with everything that belongs to it and nothing else
    uint64_t set_ups = 0;  // how often this buffer was set up
    bool operator==(const picture_record&) const = default;
};
using picture_records = std::map<uint8_t, picture_record>; // by buffer number; what each was set up as last

class picture_port {
public:
    explicit picture_port(bool for_demo) : demo(for_demo) {} // the way in of buffers 16 to 25

    // One write to the control register; one frame to the data port.
    [[nodiscard]] mistake control(std::span<const uint8_t> bytes, picture_records& records);
    [[nodiscard]] mistake data(std::span<const uint8_t> bytes, picture_records& records, picture_memory& memory);

    // The buffer that was set up last.
    [[nodiscard]] uint8_t buffer() const { return current; }

private:
    enum class phase : uint8_t { idle, set_up, taking };

    mistake set_up(std::span<const uint8_t> bytes, picture_records& records);
    mistake start();
    mistake end(picture_records& records);

    const bool demo;
    phase now = phase::idle;
    uint8_t current = 0;
    bool short_seen = false;        // a frame of less than 1,400 bytes came: it must have been the last
    mistake spoilt = mistake::none; // the first thing wrong with the data
};

// A picture's bytes as they were streamed: hor x ver x 4, lines without padding.
[[nodiscard]] std::vector<uint8_t> picture_from(const picture_memory& memory, const picture_record& record);

} // namespace rvk
