#include "cardsim/frames.h"

#include "base/bytes.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/frame.h"

#include <cassert>

namespace rvk {
namespace {

// Up to the end of the header, which is there in full once this is good.
violation check_header(std::span<const uint8_t> frame)
{
    if (frame.size() < sizeof(ethernet_head)) { return violation::foreign; }
    const ethernet_head head = load_head(frame.data());
    if (head.source != request::head.source) { return violation::foreign; }
    if (head.destination != request::head.destination) { return violation::wrong_destination; }
    if (frame.size() < request::payload) { return violation::too_short_for_header; }
    if (head.type != request::head.type) { return violation::wrong_type; }
    return load_le16(&frame[request::sync]) == request::sync_mark ? violation::none : violation::wrong_sync;
}

violation check_sizes(size_t received, uint8_t code, size_t len)
{
    if (code != code_read && code != code_write && code != code_write_ack) { return violation::unknown_code; }
    if (len == 0) { return violation::len_zero; }
    if (len > frame_data_max) { return violation::len_above_max; }
    const size_t due = request::payload + padded_length(code, len) + checksum_bytes;
    if (received < due) { return violation::shorter_than_len; }
    return received > due ? violation::longer_than_len : violation::none;
}

violation check_contents(std::span<const uint8_t> frame, const request_fields& fields)
{
    const size_t end = frame.size() - checksum_bytes;
    const uint16_t computed = frame_checksum(frame.data() + checksummed_from, end - checksummed_from);
    if (load_le16(frame.data() + end) != computed) { return violation::wrong_checksum; }
    const auto area = frame.subspan(request::payload, end - request::payload);
    if (!all_zero(area.subspan(fields.data.size()))) {
        return fields.code == code_read ? violation::read_area_not_zero : violation::padding_not_zero;
    }
    return fields.code == code_write && fields.seq != 0 ? violation::plain_write_numbered : violation::none;
}

violation check_bus_area(std::span<const uint8_t> packet, size_t length)
{
    if (length == 0 || length > bus_data_max) { return violation::bus_data_length; }
    const size_t carried = packet[bus::type] == bus_write ? length : 0;
    const size_t area = packet.size() - bus_packet_overhead;
    if (area != std::max(carried, bus_data_min)) { return violation::bus_data_length; }
    const auto summed = packet.first(bus_packet_overhead + std::min(length, area));
    if (packet_checksum_judge(packet, packet_checksum_calc(summed)) != 0) { return violation::bus_checksum; }
    return all_zero(packet.subspan(bus::data, area).subspan(carried)) ? violation::none : violation::bus_area_not_zero;
}

} // namespace

violation check_request(std::span<const uint8_t> frame, request_fields& out)
{
    if (const violation v = check_header(frame); v != violation::none) { return v; }
    const uint8_t* p = frame.data();
    out = {load_le16(p + request::model), p[request::slot],           load_le16(p + request::seq), p[request::code],
           load_le32(p + request::addr),  load_le16(p + request::len)};
    if (const violation v = check_sizes(frame.size(), out.code, out.len); v != violation::none) { return v; }
    out.data = frame.subspan(request::payload, out.code == code_read ? 0 : out.len);
    return check_contents(frame, out);
}

void pack_reply(reply_frame& out, const request_fields& request, uint8_t status, uint8_t code,
                std::span<const uint8_t> data)
{
    assert(data.size() <= reply_data_max);
    out.resize(reply::payload + data.size() + checksum_bytes);
    uint8_t* frame = out.data();
    store_head(frame, reply::head);
    store_le16(frame + reply::sync, reply::sync_mark);
    frame[reply::ack] = status;
    store_le16(frame + reply::model, request.model);
    frame[reply::slot] = request.slot;
    store_le16(frame + reply::seq, request.seq);
    frame[reply::code] = code;
    store_le32(frame + reply::addr, request.addr);
    store_le16(frame + reply::len, static_cast<uint16_t>(data.size()));
    std::ranges::copy(data, frame + reply::payload);
    close_reply(out);
}

void close_reply(reply_frame& frame)
{
    const size_t end = frame.size() - checksum_bytes;
    store_le16(&frame[end], frame_checksum(&frame[checksummed_from], end - checksummed_from));
}

bool is_bus_packet(std::span<const uint8_t> frame)
{
    if (frame.size() < bus::addr || load_le16(&frame[bus::rsv1]) != 0) { return false; }
    const ethernet_head head = load_head(frame.data());
    return head.destination == request::head.destination && head.type == request::head.type &&
           head.source != request::head.source;
}

violation check_bus_request(std::span<const uint8_t> packet, request_fields& out)
{
    const uint8_t* p = packet.data();
    if (packet.size() < bus_short_packet || load_le32(p + bus::length) != packet.size()) {
        return violation::bus_packet_length;
    }
    if (p[bus::type] != bus_write && p[bus::type] != bus_read) { return violation::bus_packet_type; }
    if (p[bus::rsv0] != eth_raw_transfer_rsv0) { return violation::bus_reserved_byte; }
    const uint32_t length = load_le32(p + bus::data_len);
    if (const violation v = check_bus_area(packet, length); v != violation::none) { return v; }
    out = {.code = p[bus::type],
           .addr = load_le32(p + bus::addr),
           .len = static_cast<uint16_t>(length),
           .data = packet.subspan(bus::data, p[bus::type] == bus_write ? length : 0)};
    return violation::none;
}

void pack_bus_answer(reply_frame& out, uint8_t type, uint32_t addr, std::span<const uint8_t> data)
{
    assert(!data.empty() && data.size() <= bus_data_max);
    const size_t area = std::max(data.size(), bus_data_min);
    out.assign(area + bus_packet_overhead, 0);
    uint8_t* p = out.data();
    store_head(p, {eth_raw_rx_header, {}, eth_raw_transfer_IP});
    store_le32(p + bus::length, static_cast<uint32_t>(out.size()));
    p[bus::type] = type;
    store_le32(p + bus::addr, addr);
    store_le32(p + bus::data_len, static_cast<uint32_t>(data.size()));
    std::ranges::copy(data, p + bus::data);
    close_bus_answer(out);
}

void close_bus_answer(reply_frame& packet)
{
    store_le16(&packet[packet.size() - checksum_bytes], packet_checksum_calc(packet));
}

} // namespace rvk
