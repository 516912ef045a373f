#include "cardsim/bus_memory.h"

#include "base/bytes.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/frame.h"

#include <algorithm>
#include <cassert>

namespace rvk {
namespace {

static_assert(bus_packet_max <= reply_room);

bool all_zero(std::span<const uint8_t> bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 0; });
}

mistake check_head(std::span<const uint8_t> packet)
{
    if (packet.size() < bus_short_packet || load_le32(packet.data() + bus::length) != packet.size()) {
        return mistake::bus_packet_length;
    }
    if (packet[bus::type] != bus_write && packet[bus::type] != bus_read) { return mistake::bus_packet_type; }
    return packet[bus::rsv0] == 0 ? mistake::none : mistake::bus_reserved_byte;
}

mistake check_area(std::span<const uint8_t> packet, bool writes, size_t length)
{
    if (length == 0 || length > bus_data_max) { return mistake::bus_data_length; }
    const size_t carried = writes ? length : 0;
    const size_t area = packet.size() - bus_packet_overhead;
    if (area != std::max(carried, bus_data_min)) { return mistake::bus_data_length; }
    const auto summed = packet.first(bus_packet_overhead + std::min(length, area));
    if (packet_checksum_judge(packet, packet_checksum_calc(summed)) != 0) { return mistake::bus_checksum; }
    return all_zero(packet.subspan(bus::data, area).subspan(carried)) ? mistake::none : mistake::bus_area_not_zero;
}

// Everything but the data, whose area is `area` bytes.
void pack(reply_frame& out, uint8_t type, uint32_t addr, uint32_t length, size_t area)
{
    uint8_t* p = out.bytes.data();
    out.length = area + bus_packet_overhead;
    std::fill_n(p, bus::data, uint8_t{0});
    store_head(p, {eth_raw_rx_header, {}, eth_raw_transfer_IP});
    store_le32(p + bus::length, static_cast<uint32_t>(out.length));
    p[bus::type] = type;
    store_le32(p + bus::addr, addr);
    store_le32(p + bus::data_len, length);
}

} // namespace

bool is_bus_packet(std::span<const uint8_t> frame)
{
    if (frame.size() < bus::addr || frame[bus::rsv1] != 0 || frame[bus::rsv1 + 1] != 0) { return false; }
    const ethernet_head head = load_head(frame.data());
    return head.destination == eth_raw_tx_header && head.type == eth_raw_transfer_IP &&
           head.source != eth_raw_rx_header;
}

mistake check_bus_request(std::span<const uint8_t> packet, bus_request& out)
{
    if (const mistake wrong = check_head(packet); wrong != mistake::none) { return wrong; }
    const bool writes = packet[bus::type] == bus_write;
    const uint32_t length = load_le32(packet.data() + bus::data_len);
    if (const mistake wrong = check_area(packet, writes, length); wrong != mistake::none) { return wrong; }
    out = {packet[bus::type], load_le32(packet.data() + bus::addr), length,
           packet.subspan(bus::data, writes ? length : 0)};
    return mistake::none;
}

void pack_bus_data(reply_frame& out, uint32_t addr, std::span<const uint8_t> data)
{
    assert(!data.empty() && data.size() <= bus_data_max);
    const size_t area = std::max(data.size(), bus_data_min);
    pack(out, bus_read_back, addr, static_cast<uint32_t>(data.size()), area);
    std::copy(data.begin(), data.end(), out.bytes.begin() + bus::data);
    std::fill_n(out.bytes.begin() + bus::data + data.size(), area - data.size(), uint8_t{0});
    close_bus_answer(out);
}

void pack_bus_response(reply_frame& out, uint32_t addr, uint8_t flag)
{
    pack(out, bus_response, addr, sizeof flag, bus_data_min);
    std::fill_n(out.bytes.begin() + bus::data, bus_data_min, uint8_t{0});
    out.bytes[bus::data] = flag;
    close_bus_answer(out);
}

void close_bus_answer(reply_frame& packet)
{
    store_le16(packet.bytes.data() + packet.length - checksum_bytes, packet_checksum_calc(packet.view()));
}

} // namespace rvk
