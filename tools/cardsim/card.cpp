#include "cardsim/card.h"

#include "ap_msg/firmware.h"
#include "base/bytes.h"
#include "eth_raw/frame.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace rvk {
namespace {

constexpr uint64_t buffer_bytes = uint64_t{128} << 20; // ours
constexpr size_t step_bytes = frame_data_max;          // of a read-back
constexpr size_t step_bursts = bursts_of(step_bytes), step_stride = step_bursts * burst_bytes;
constexpr size_t control_block_bytes = 6;          // card: command, hor, ver, buffer's low byte
constexpr size_t command_block_bytes = 7;          // card: address in words, bursts, 0 to read and 1 to load
constexpr uint8_t demo_first = 16, demo_last = 25; // card

// From an offset among the padded lines to one in card memory.
uint64_t spread(uint64_t padded) { return padded / step_bytes * step_stride + padded % step_bytes; }

// Calls visit(place in card memory, offset in the range, count) for each stretch of `count` bytes of the stream from
// `from` on that lies in one piece.
template <typename Visit>
void for_stretches(const picture_record& r, uint64_t from, size_t count, Visit visit)
{
    const size_t line = line_bytes(r.size), stride = stride_of(r.size);
    for (size_t done = 0; done < count;) {
        const uint64_t at = from + done;
        const auto in_line = static_cast<size_t>(at % line);
        const uint64_t padded = at / line * stride + in_line;
        // A line without padding runs on into the next one.
        const size_t to_line_end = line == stride ? count : line - in_line;
        const size_t to_step_end = step_bytes - static_cast<size_t>(padded % step_bytes);
        const size_t n = std::min({count - done, to_line_end, to_step_end});
        visit(r.buffer * buffer_bytes + spread(padded), done, n);
        done += n;
    }
}

constexpr size_t piece_bytes = 1024; // card

// Indices into firmware_registers.
constexpr size_t total_size = 0, received_length = 1, file_count = 2, file_size = 3, version = 4, device_type = 5,
                 card_slot = 6;

// The head of a file that is there to its last byte.
violation check_head(const firmware_file& file)
{
    const auto head = std::span(file.bytes).first(image_head_bytes);
    const auto image = file.image();
    if (load_le32(&head[image_size_at]) != image.size()) { return violation::firmware_head_size; }
    // The same sum with the same start that closes a frame.
    if (load_le16(&head[image_checksum_at]) != frame_checksum(image.data(), image.size())) {
        return violation::firmware_head_checksum;
    }
    const bool rest_is_zero = all_zero(head.first(image_checksum_at).subspan(image_size_at + 4)) &&
                              all_zero(head.subspan(image_checksum_at + 2));
    return rest_is_zero ? violation::none : violation::firmware_head_not_zero;
}

constexpr uint8_t read_done = 1; // ours: what the read-back's status register says

// Only those of model 0, slot 0 are the picture loader's; elsewhere its addresses are plain memory.
bool is_of_loader(const request_fields& request) { return request.model == 0 && request.slot == 0; }

violation set_up(picture_port& port, std::span<const uint8_t> bytes, picture_records& records)
{
    const picture_record wanted{bytes[5], {load_le16(&bytes[1]), load_le16(&bytes[3])}};
    if (bytes[0] != 0) { return violation::picture_command; }
    if (port.for_demo && (wanted.buffer < demo_first || wanted.buffer > demo_last)) {
        return violation::picture_buffer_number;
    }
    if (spread(uint64_t{stride_of(wanted.size)} * wanted.size.ver) > buffer_bytes) {
        return violation::picture_too_large;
    }
    const bool interrupts = port.now == picture_port::phase::taking;
    records[wanted.buffer] = wanted;
    port.buffer = wanted.buffer;
    port.now = picture_port::phase::set_up;
    return interrupts ? violation::picture_not_ended : violation::none;
}

// Whatever is wrong with the picture, it is over.
violation end(picture_port& port, picture_records& records)
{
    if (port.now != picture_port::phase::taking) { return violation::picture_end_order; }
    port.now = picture_port::phase::idle;
    picture_record& record = records[port.buffer];
    if (port.spoilt == violation::none && record.received < picture_bytes(record.size)) {
        return violation::picture_data_missing;
    }
    record.whole = port.spoilt == violation::none;
    return port.spoilt;
}

// One write to the control register.
violation control(picture_port& port, std::span<const uint8_t> bytes, picture_records& records)
{
    if (bytes.size() == control_block_bytes) { return set_up(port, bytes, records); }
    if (bytes.size() != 1) { return violation::picture_control_length; }
    if (bytes[0] == 0) { return end(port, records); }
    if (bytes[0] != 1) { return violation::picture_command; }
    if (port.now != picture_port::phase::set_up) { return violation::picture_start_order; }
    port = {port.for_demo, picture_port::phase::taking, port.buffer};
    return violation::none;
}

// One frame to the data port.
violation take_data(picture_port& port, std::span<const uint8_t> bytes, picture_records& records, card_memory& memory)
{
    if (port.now != picture_port::phase::taking) { return violation::picture_data_order; }
    picture_record& record = records[port.buffer];
    const bool excess = record.received + bytes.size() > picture_bytes(record.size);
    if (excess || port.short_seen) {
        const violation wrong = excess ? violation::picture_data_excess : violation::picture_frame_size;
        if (port.spoilt == violation::none) { port.spoilt = wrong; }
        return wrong;
    }
    for_stretches(record, record.received, bytes.size(),
                  [&](uint64_t place, size_t offset, size_t n) { memory.write(place, bytes.subspan(offset, n)); });
    record.received += bytes.size();
    port.short_seen = bytes.size() < frame_data_max;
    return violation::none;
}

violation read_command(read_back_port& port, std::span<const uint8_t> bytes)
{
    if (bytes.size() != command_block_bytes) { return violation::read_command_length; }
    const uint32_t wanted = load_le16(&bytes[4]);
    if (wanted == 0 || wanted > step_bursts || bytes[6] != 0) { return violation::read_command_value; }
    port = {read_back_port::phase::commanded, uint64_t{load_le32(&bytes[0])} * word_bytes, wanted};
    return violation::none;
}

violation read_start(read_back_port& port, std::span<const uint8_t> bytes)
{
    if (bytes.size() != 1 || bytes[0] != 1) { return violation::read_start_value; }
    if (port.now != read_back_port::phase::commanded) { return violation::read_start_order; }
    port.now = read_back_port::phase::started;
    return violation::none;
}

violation read_status(read_back_port& port, uint8_t& status)
{
    if (port.now < read_back_port::phase::started) { return violation::read_status_order; }
    port.now = read_back_port::phase::looked_at;
    status = read_done;
    return violation::none;
}

violation read_window(read_back_port& port, const card_memory& memory, std::span<uint8_t> out)
{
    if (port.now < read_back_port::phase::started) { return violation::read_window_order; }
    if (bursts_of(out.size()) != port.bursts) { return violation::read_window_size; }
    memory.read(port.from, out);
    const bool skipped = port.now == read_back_port::phase::started;
    port.now = read_back_port::phase::idle;
    return skipped ? violation::read_status_skipped : violation::none;
}

// offset  of the frame's address from the data port's
violation load_data(loader_port& port, size_t offset, std::span<const uint8_t> frame)
{
    std::vector<uint8_t>& piece = port.piece;
    const bool abandons = offset == 0 && !piece.empty(); // the command of the piece before never came
    if (abandons) { piece.clear(); }
    const bool behind_short = piece.size() % frame_data_max != 0;
    if (offset != piece.size() || behind_short) { return violation::loader_data_order; }
    if (piece.size() + frame.size() > loader_piece_max) { return violation::loader_data_excess; }
    piece.insert(piece.end(), frame.begin(), frame.end());
    return abandons ? violation::loader_piece_abandoned : violation::none;
}

violation load_command(loader_port& port, std::span<const uint8_t> block)
{
    if (block.size() != command_block_bytes) { return violation::loader_command_length; }
    if (port.piece.empty()) { return violation::loader_command_order; }
    const bool fits = load_le16(&block[4]) == bursts_of(port.piece.size()) && block[6] == 1;
    if (fits) { port.memory.write(uint64_t{load_le32(&block[0])} * word_bytes, port.piece); }
    port.piece.clear();
    return fits ? violation::none : violation::loader_command_value;
}

// slot  the card's own, which the last register must name
bool is_good(const firmware_port& port, size_t index, std::span<const uint8_t> bytes, uint8_t slot)
{
    switch (index) {
    case total_size: return load_le32(bytes.data()) >= image_head_bytes;
    case received_length: return load_le32(bytes.data()) == 0;
    case file_count: return load_le32(bytes.data()) == 1;
    case file_size: return load_le32(bytes.data()) == port.total;
    case version: return bytes[0] == 0;
    case card_slot: return bytes[0] == 0 && bytes[1] == 0 && bytes[2] == slot;
    default: return true; // device_type: any model
    }
}

// index  into firmware_registers
violation write_register(firmware_port& port, size_t index, std::span<const uint8_t> bytes, uint8_t slot)
{
    if (bytes.size() != firmware_registers[index].bytes) { return violation::firmware_register_length; }
    if (index != total_size && (port.whole || index != port.registers)) { return violation::firmware_register_order; }
    if (!is_good(port, index, bytes, slot)) { return violation::firmware_register_value; }
    if (index == total_size) {
        port.abandoned += port.is_running();
        port.total = load_le32(bytes.data());
        port.received = 0;
        port.whole = false;
        port.coming.bytes.clear();
    }
    if (index == device_type) { port.coming.device_type = static_cast<uint16_t>(bytes[0] << 8 | bytes[1]); }
    port.registers = index + 1;
    return violation::none;
}

violation take_piece(firmware_port& port, std::span<const uint8_t> bytes)
{
    if (port.next_piece() == 0) { return violation::firmware_piece_order; }
    const uint64_t due = std::min<uint64_t>(piece_bytes, port.total - port.received);
    if (bytes.size() != due) { return violation::firmware_piece_size; }
    std::vector<uint8_t>& coming = port.coming.bytes;
    coming.insert(coming.end(), bytes.begin(), bytes.end());
    if (coming.size() == port.total) {
        if (const violation v = check_head(port.coming); v != violation::none) {
            coming.resize(static_cast<size_t>(port.received)); // a refused piece was never taken
            return v;
        }
        port.files.push_back(std::exchange(port.coming, {}));
        port.whole = true;
    }
    port.received += bytes.size();
    return violation::none;
}

} // namespace

void card_memory::write(uint64_t addr, std::span<const uint8_t> bytes)
{
    while (!bytes.empty()) {
        addr &= mask;
        const size_t offset = addr % sizeof(page);
        const size_t count = std::min(bytes.size(), sizeof(page) - offset);
        std::unique_ptr<page>& entry = pages[addr / sizeof(page)];
        if (!entry) { entry = std::make_unique<page>(); }
        std::memcpy(entry->data() + offset, bytes.data(), count);
        if (lists) { note(addr, addr + count); }
        addr += count;
        bytes = bytes.subspan(count);
    }
}

void card_memory::read(uint64_t addr, std::span<uint8_t> out) const
{
    while (!out.empty()) {
        addr &= mask;
        const size_t offset = addr % sizeof(page);
        const size_t count = std::min(out.size(), sizeof(page) - offset);
        const auto found = pages.find(addr / sizeof(page));
        if (found == pages.end()) {
            std::memset(out.data(), 0, count);
        } else {
            std::memcpy(out.data(), found->second->data() + offset, count);
        }
        addr += count;
        out = out.subspan(count);
    }
}

std::vector<uint8_t> card_memory::read(uint64_t addr, size_t count) const
{
    std::vector<uint8_t> bytes(count);
    read(addr, bytes);
    return bytes;
}

// Joins it with all that it overlaps or touches.
void card_memory::note(uint64_t first, uint64_t end)
{
    auto at = noted.upper_bound(first);
    if (at != noted.begin() && std::prev(at)->second >= first) { first = (--at)->first; }
    for (; at != noted.end() && at->first <= end; at = noted.erase(at)) { end = std::max(end, at->second); }
    noted.emplace_hint(at, first, end);
}

std::vector<uint8_t> picture_from(const card_memory& memory, const picture_record& record)
{
    std::vector<uint8_t> picture(picture_bytes(record.size));
    for_stretches(record, 0, picture.size(), [&](uint64_t place, size_t offset, size_t n) {
        memory.read(place, std::span(picture).subspan(offset, n));
    });
    return picture;
}

std::span<const uint8_t> firmware_file::image() const { return std::span(bytes).subspan(image_head_bytes); }

uint32_t firmware_port::next_piece() const
{
    if (registers < firmware_registers.size() || whole) { return 0; }
    return static_cast<uint32_t>(received / piece_bytes) + 1;
}

violation sim_card::write(const request_fields& request)
{
    switch (request.addr) {
    case demo_data: return take_data(demo_port, request.data, buffers, pictures);
    case other_data: return take_data(other_port, request.data, buffers, pictures);
    case firmware_data: return take_piece(firmware, request.data);
    default: break;
    }
    for (size_t i = 0; is_of_loader(request) && i < loaders.size(); ++i) {
        const uint32_t offset = request.addr - loader_data[i];
        if (offset < loader_piece_max) { return load_data(loaders[i], offset, request.data); }
    }
    const violation wrong = write_part(request);
    if (!is_refused(wrong)) { registers.write(request.addr, request.data); }
    return wrong;
}

// What a write sets off beside being kept as the register's value.
violation sim_card::write_part(const request_fields& request)
{
    switch (request.addr) {
    case demo_control: return control(demo_port, request.data, buffers);
    case other_control: return control(other_port, request.data, buffers);
    case read_command_register: return read_command(read_back, request.data);
    case read_start_register: return read_start(read_back, request.data);
    default: break;
    }
    for (size_t i = 0; is_of_loader(request) && i < loaders.size(); ++i) {
        if (request.addr == loader_commands[i]) { return load_command(loaders[i], request.data); }
    }
    for (size_t i = 0; i < firmware_registers.size(); ++i) {
        if (request.addr == firmware_registers[i].addr) {
            return write_register(firmware, i, request.data, request.slot);
        }
    }
    return violation::none;
}

violation sim_card::read(const request_fields& request, std::span<uint8_t> out)
{
    if (request.addr == read_window_register) { return read_window(read_back, pictures, out.first(request.len)); }
    if (request.addr == read_status_register) { return read_status(read_back, out[0]); }
    registers.read(request.addr, out);
    return violation::none;
}

std::optional<uint8_t> sim_card::demo_picture_ended(const request_fields& request) const
{
    const bool ends = request.addr == demo_control && request.data.size() == 1 && request.data[0] == 0;
    return ends ? std::optional(demo_port.buffer) : std::nullopt;
}

} // namespace rvk
