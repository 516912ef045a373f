#include "cardsim/firmware.h"

#include "base/bytes.h"
#include "eth_raw/frame.h"
#include "eth_raw/registers.h"

#include <algorithm>

namespace rvk {
namespace {

constexpr size_t head_size_at = 0, head_checksum_at = 130; // 4 and 2 bytes

// Indices into firmware_registers.
constexpr size_t total_size = 0, received_length = 1, file_count = 2, file_size = 3, device_type = 5, card_slot = 6;

bool is_zero(std::span<const uint8_t> bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 0; });
}

// The head of a file that is there to its last byte.
mistake check_head(const firmware_file& file)
{
    const auto head = std::span(file.bytes).first(firmware_head_bytes);
    const auto image = file.image();
    if (load_le32(&head[head_size_at]) != image.size()) { return mistake::firmware_head_size; }
    // The same sum with the same start that closes a frame.
    if (load_le16(&head[head_checksum_at]) != frame_checksum(image.data(), image.size())) {
        return mistake::firmware_head_checksum;
    }
    const bool rest_is_zero = is_zero(head.subspan(head_size_at + 4, head_checksum_at - head_size_at - 4)) &&
                              is_zero(head.subspan(head_checksum_at + 2));
    return rest_is_zero ? mistake::none : mistake::firmware_head_not_zero;
}

} // namespace

mistake firmware_port::check_value(size_t index, std::span<const uint8_t> bytes, uint8_t slot) const
{
    bool good = true;
    switch (index) {
    case total_size: good = load_le32(bytes.data()) >= firmware_head_bytes; break;
    case received_length: good = load_le32(bytes.data()) == 0; break;
    case file_count: good = load_le32(bytes.data()) == 1; break;
    case file_size: good = load_le32(bytes.data()) == state.total; break;
    case device_type: break; // any model
    case card_slot: good = bytes[0] == 0 && bytes[1] == 0 && bytes[2] == slot; break;
    default: good = bytes[0] == 0; break; // v
    }
    return good ? mistake::none : mistake::firmware_register_value;
}

mistake firmware_port::write_register(size_t index, std::span<const uint8_t> bytes, uint8_t slot)
{
    if (bytes.size() != firmware_registers[index].bytes) { return mistake::firmware_register_length; }
    if (index != total_size && (state.whole || index != state.registers)) { return mistake::firmware_register_order; }
    if (const mistake m = check_value(index, bytes, slot); m != mistake::none) { return m; }
    if (index == total_size) {
        if (state.registers > 0 && !state.whole) { ++state.abandoned; }
        state = {0, load_le32(bytes.data()), 0, state.abandoned, state.completed, false};
        coming.bytes.clear();
    }
    if (index == device_type) { coming.device_type = static_cast<uint16_t>(bytes[0] << 8 | bytes[1]); }
    state.registers = index + 1;
    return mistake::none;
}

uint32_t firmware_port::next_piece() const
{
    if (state.registers < firmware_registers.size() || state.whole) { return 0; }
    return static_cast<uint32_t>(state.received / firmware_piece_bytes) + 1;
}

mistake firmware_port::piece(std::span<const uint8_t> bytes)
{
    if (next_piece() == 0) { return mistake::firmware_piece_order; }
    const uint64_t due = std::min<uint64_t>(firmware_piece_bytes, state.total - state.received);
    if (bytes.size() != due) { return mistake::firmware_piece_size; }
    coming.bytes.insert(coming.bytes.end(), bytes.begin(), bytes.end());
    if (coming.bytes.size() == state.total) {
        if (const mistake m = check_head(coming); m != mistake::none) {
            coming.bytes.resize(static_cast<size_t>(state.received)); // a refused piece was never taken
            return m;
        }
        kept.push_back(std::move(coming));
        coming = {};
        ++state.completed;
        state.whole = true;
    }
    state.received += bytes.size();
    return mistake::none;
}

} // namespace rvk
