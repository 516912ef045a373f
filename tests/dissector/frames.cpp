#include "dissector/frames.h"

#include "base/bytes.h"
#include "cardsim/pcap.h"
#include "eth_raw/frame.h"
#include "system/child.h"

#include <algorithm>
#include <array>
#include <iterator>

namespace rvk {
namespace {

constexpr size_t file_head = 24, record_head = 16; // pcap
constexpr size_t ethernet_head = 14;

} // namespace

std::vector<frame_bytes> frames_in(const std::string& path)
{
    std::vector<frame_bytes> out;
    const std::string file = file_text(path);
    const auto* p = reinterpret_cast<const uint8_t*>(file.data());
    for (size_t at = file_head; at + record_head <= file.size();) {
        const uint8_t* frame = p + at + record_head;
        const uint32_t length = load_le32(p + at + 8);
        out.emplace_back(frame, frame + length);
        at += record_head + length;
    }
    return out;
}

std::vector<uint8_t> pcap_of(const std::vector<frame_bytes>& frames)
{
    frame_trail trail;
    trail.keep(frames.size());
    for (size_t i = 0; i < frames.size(); ++i) { trail.add(i * 1000, frames[i]); }
    return trail.as_pcap();
}

bool is_between_us(const frame_bytes& frame)
{
    const auto stand = [&](const std::array<uint8_t, 6>& to, const std::array<uint8_t, 6>& from) {
        return std::equal(to.begin(), to.end(), frame.begin()) &&
               std::equal(from.begin(), from.end(), frame.begin() + 6);
    };
    return frame.size() >= ethernet_head &&
           (stand(eth_raw_tx_header, eth_raw_rx_header) || stand(eth_raw_rx_header, eth_raw_tx_header));
}

void spoil(frame_bytes& frame, std::mt19937& random)
{
    const auto below = [&](size_t bound) { return static_cast<size_t>(random() % bound); };
    const size_t first = below(10) == 0 ? 0 : 12;
    switch (below(5)) {
    case 0: frame.resize(first + below(std::max(frame.size() - first, size_t{1}))); break;
    case 1: frame.resize(frame.size() + 1 + below(40), 0xA5); break;
    case 2: frame.resize(std::min(frame.size(), first + below(40))); [[fallthrough]];
    default:
        for (size_t i = 0; i <= below(8) && first < frame.size(); ++i) {
            const uint8_t values[] = {0, 1, 0x7F, 0x80, 0xFF, static_cast<uint8_t>(random())};
            frame[first + below(std::min(frame.size() - first, size_t{20}))] = values[below(std::size(values))];
        }
    }
}

} // namespace rvk
