#include "cardsim/pcap.h"

#include "base/bytes.h"

namespace rvk {
namespace {

constexpr uint32_t magic = 0xA1B2C3D4; // microseconds; a reader takes the byte order from it
constexpr uint32_t longest = 65535;
constexpr uint32_t ethernet = 1;

void put(std::vector<uint8_t>& out, uint32_t value)
{
    const size_t at = out.size();
    out.resize(at + 4);
    store_le32(out.data() + at, value);
}

} // namespace

void frame_trail::keep(size_t frames)
{
    ring.clear();
    ring.shrink_to_fit();
    room = frames;
    oldest = 0;
}

void frame_trail::add(uint64_t time_us, std::span<const uint8_t> frame)
{
    if (room == 0) { return; }
    if (ring.size() < room) {
        ring.push_back({time_us, {frame.begin(), frame.end()}});
        return;
    }
    ring[oldest].time_us = time_us;
    ring[oldest].frame.assign(frame.begin(), frame.end());
    oldest = (oldest + 1) % room;
}

std::vector<uint8_t> frame_trail::as_pcap() const
{
    std::vector<uint8_t> out;
    put(out, magic);
    put(out, 4u << 16 | 2u); // version 2.4, two 16-bit fields
    put(out, 0);             // times are as they are
    put(out, 0);
    put(out, longest);
    put(out, ethernet);
    for (size_t i = 0; i < ring.size(); ++i) {
        const entry& e = ring[(oldest + i) % ring.size()];
        put(out, static_cast<uint32_t>(e.time_us / 1'000'000));
        put(out, static_cast<uint32_t>(e.time_us % 1'000'000));
        put(out, static_cast<uint32_t>(e.frame.size()));
        put(out, static_cast<uint32_t>(e.frame.size()));
        out.insert(out.end(), e.frame.begin(), e.frame.end());
    }
    return out;
}

} // namespace rvk
