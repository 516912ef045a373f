#include "cardsim/picture_port.h"

#include "base/bytes.h"
#include "eth_raw/frame.h"

#include <algorithm>

namespace rvk {
namespace {

constexpr size_t control_block_bytes = 6; // command, hor, ver, buffer's low byte
constexpr uint8_t command_end = 0, command_start = 1;
constexpr uint8_t demo_first = 16, demo_last = 25;

static_assert(step_room % read_unit == 0 && step_room >= step_bytes);

size_t line_bytes(const picture_record& r) { return size_t{r.hor} * pixel_bytes; }
size_t line_stride(const picture_record& r) { return (line_bytes(r) + read_unit - 1) / read_unit * read_unit; }
uint64_t stream_bytes(const picture_record& r) { return uint64_t{line_bytes(r)} * r.ver; }

// From an offset among the padded lines to one in card memory.
uint64_t spread(uint64_t padded) { return padded / step_bytes * step_room + padded % step_bytes; }

bool fits(const picture_record& r) { return spread(uint64_t{line_stride(r)} * r.ver) <= buffer_room; }

// Calls visit(place in card memory, offset in the range, count) for each stretch of `count` bytes of the stream from
// `from` on that lies in one piece.
template <typename Visit>
void for_stretches(const picture_record& r, uint64_t from, size_t count, Visit visit)
{
    const size_t line = line_bytes(r), stride = line_stride(r);
    for (size_t done = 0; done < count;) {
        const uint64_t at = from + done;
        const auto in_line = static_cast<size_t>(at % line);
        const uint64_t padded = at / line * stride + in_line;
        // A line without padding runs on into the next one.
        const size_t to_line_end = line == stride ? count : line - in_line;
        const size_t to_step_end = step_bytes - static_cast<size_t>(padded % step_bytes);
        const size_t n = std::min({count - done, to_line_end, to_step_end});
        visit(buffer_start(r.buffer) + spread(padded), done, n);
        done += n;
    }
}

} // namespace

mistake picture_port::control(std::span<const uint8_t> bytes, picture_records& records)
{
    if (bytes.size() == control_block_bytes) { return set_up(bytes, records); }
    if (bytes.size() != 1) { return mistake::picture_control_length; }
    switch (bytes[0]) {
    case command_start: return start();
    case command_end: return end(records);
    default: return mistake::picture_command;
    }
}

mistake picture_port::set_up(std::span<const uint8_t> bytes, picture_records& records)
{
    picture_record wanted{bytes[5], load_le16(&bytes[1]), load_le16(&bytes[3])};
    if (bytes[0] != command_end) { return mistake::picture_command; }
    if (demo && (wanted.buffer < demo_first || wanted.buffer > demo_last)) { return mistake::picture_buffer_number; }
    if (!fits(wanted)) { return mistake::picture_too_large; }
    const bool interrupts = now == phase::taking;
    picture_record& record = records[wanted.buffer];
    wanted.set_ups = record.set_ups + 1;
    record = wanted;
    current = wanted.buffer;
    now = phase::set_up;
    return interrupts ? mistake::picture_not_ended : mistake::none;
}

mistake picture_port::start()
{
    if (now != phase::set_up) { return mistake::picture_start_order; }
    now = phase::taking;
    short_seen = false;
    spoilt = mistake::none;
    return mistake::none;
}

// Whatever is wrong with the picture, it is over.
mistake picture_port::end(picture_records& records)
{
    if (now != phase::taking) { return mistake::picture_end_order; }
    now = phase::idle;
    picture_record& record = records[current];
    if (spoilt == mistake::none && record.received < stream_bytes(record)) { return mistake::picture_data_missing; }
    record.whole = spoilt == mistake::none;
    return spoilt;
}

mistake picture_port::data(std::span<const uint8_t> bytes, picture_records& records, picture_memory& memory)
{
    if (now != phase::taking) { return mistake::picture_data_order; }
    picture_record& record = records[current];
    mistake wrong = mistake::none;
    if (record.received + bytes.size() > stream_bytes(record)) {
        wrong = mistake::picture_data_excess;
    } else if (short_seen) {
        wrong = mistake::picture_frame_size;
    }
    if (wrong != mistake::none) {
        if (spoilt == mistake::none) { spoilt = wrong; }
        return wrong;
    }
    for_stretches(record, record.received, bytes.size(),
                  [&](uint64_t place, size_t offset, size_t n) { memory.write(place, bytes.subspan(offset, n)); });
    record.received += bytes.size();
    short_seen = bytes.size() < frame_data_max;
    return mistake::none;
}

std::vector<uint8_t> picture_from(const picture_memory& memory, const picture_record& record)
{
    std::vector<uint8_t> picture(static_cast<size_t>(stream_bytes(record)));
    for_stretches(record, 0, picture.size(), [&](uint64_t place, size_t offset, size_t n) {
        memory.read(place, std::span(picture).subspan(offset, n));
    });
    return picture;
}

} // namespace rvk
