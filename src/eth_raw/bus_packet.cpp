// See the header. Of the caller's buffer only what goes out is touched: 8,000 bytes are copied and summed once, and
// nothing is cleared that is written anyway. An answer's own claims about its length are compared with what was
// received before a byte behind them is looked at.
#include "eth_raw/bus_packet.h"

#include <algorithm>

namespace rvk {
namespace {

// Result: the answer's own length; 0 for a type that gives none.
size_t answer_length(std::span<const uint8_t> packet)
{
    switch (packet[bus::type]) {
    case bus_read_back: return load_le32(packet.data() + bus::length);
    case bus_response: return bus_short_packet;
    default: return 0;
    }
}

} // namespace

size_t make_bus_request(std::array<uint8_t, bus_packet_max>* packet, uint32_t addr, uint32_t length,
                        const uint8_t* data, uint8_t type)
{
    if (type == bus_write && length > bus_data_max) { return 0; }
    const size_t carried = type == bus_write ? length : bus_data_min;
    const size_t area = std::max(carried, bus_data_min);
    const size_t total = area + bus_packet_overhead;
    uint8_t* p = packet->data();
    store_head(p, {eth_raw_tx_header, {}, eth_raw_transfer_IP});
    store_le32(p + bus::length, static_cast<uint32_t>(total));
    p[bus::rsv0] = eth_raw_transfer_rsv0;
    p[bus::type] = type;
    std::copy(eth_raw_transfer_rsv1.begin(), eth_raw_transfer_rsv1.end(), p + bus::rsv1);
    store_le32(p + bus::addr, addr);
    store_le32(p + bus::data_len, length);
    memcpy(p + bus::data, data, carried);
    std::fill_n(p + bus::data + carried, area - carried, uint8_t{0});
    // Summed to the data length, not to the area's end; what a read asks for beyond its area would be zero bytes.
    const size_t summed = std::min<size_t>(length, area) + bus_packet_overhead;
    store_le16(p + total - checksum_bytes, packet_checksum_calc({p, summed}));
    return total;
}

int32_t judge_packet(std::span<const uint8_t> packet, uint32_t addr)
{
    if (packet.size() < bus_packet_overhead || packet_header_judge(packet) != 0) { return -1; }
    const size_t length = answer_length(packet);
    if (length < bus_packet_overhead || length > packet.size()) { return -1; }
    const auto answer = packet.first(length);
    if (packet_checksum_judge(answer, packet_checksum_calc(answer)) != 0) { return -1; }
    return load_le32(packet.data() + bus::addr) == addr ? 0 : -1;
}

int32_t packet_header_judge(std::span<const uint8_t> packet)
{
    return load_head(packet.data()).destination == eth_raw_rx_header ? 0 : -1;
}

int32_t packet_checksum_judge(std::span<const uint8_t> packet, uint16_t computed)
{
    return load_le16(packet.data() + packet.size() - checksum_bytes) == computed ? 0 : -1;
}

int32_t packet_length_judge(std::span<const uint8_t> packet, uint32_t requested)
{
    return load_le32(packet.data() + bus::data_len) == requested ? 0 : -1;
}

uint16_t packet_checksum_calc(std::span<const uint8_t> packet)
{
    const size_t count = packet.size() - bus::length - checksum_bytes;
    return static_cast<uint16_t>(frame_checksum(packet.data() + bus::length, count) - checksum_start);
}

} // namespace rvk
