// See the header. A packet is laid out in a buffer of the caller's, of which only what goes out is touched: 8,000 bytes
// are copied and summed once, and nothing is cleared that is written anyway. An answer's own claims about its length
// are compared with what was received before a byte behind them is looked at.
#include "eth_raw/bus_packet.h"

#include "base/bytes.h"
#include "eth_raw/frame.h"

#include <algorithm>
#include <cstring>

namespace rvk {
namespace {

constexpr size_t unsummed_bytes = 8; // packet: the destination and the checksum itself

uint16_t sum(const uint8_t* from, size_t count)
{
    return static_cast<uint16_t>(frame_checksum(from, count) - checksum_start); // no constant is added here
}

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
    std::copy(eth_raw_tx_header.begin(), eth_raw_tx_header.end(), p + bus::destination);
    store_le32(p + bus::length, static_cast<uint32_t>(total));
    p[bus::rsv0] = eth_raw_transfer_rsv0;
    p[bus::type] = type;
    std::copy(eth_raw_transfer_IP.begin(), eth_raw_transfer_IP.end(), p + bus::ethertype);
    std::copy(eth_raw_transfer_rsv1.begin(), eth_raw_transfer_rsv1.end(), p + bus::rsv1);
    store_le32(p + bus::addr, addr);
    store_le32(p + bus::data_len, length);
    memcpy(p + bus::data, data, carried);
    std::fill_n(p + bus::data + carried, area - carried, uint8_t{0});
    // Summed to the data length, not to the area's end; what a read asks for beyond its area would be zero bytes.
    const size_t summed = bus::data - bus::length + std::min<size_t>(length, area);
    store_le16(p + bus::data + area, sum(p + bus::length, summed));
    return total;
}

int32_t judge_packet(std::span<const uint8_t> packet, uint32_t addr)
{
    if (packet.size() < bus_packet_overhead || packet_header_judge(packet) != 0) { return -1; }
    const size_t length = answer_length(packet); // its own claim: nothing behind what was received is looked at
    if (length < bus_packet_overhead || length > packet.size()) { return -1; }
    const auto answer = packet.first(length);
    if (packet_checksum_judge(answer, packet_checksum_calc(answer)) != 0) { return -1; }
    return load_le32(packet.data() + bus::addr) == addr ? 0 : -1;
}

int32_t packet_header_judge(std::span<const uint8_t> packet)
{
    return std::equal(eth_raw_rx_header.begin(), eth_raw_rx_header.end(), packet.begin() + bus::destination) ? 0 : -1;
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
    return sum(packet.data() + bus::length, packet.size() - unsummed_bytes);
}

} // namespace rvk
