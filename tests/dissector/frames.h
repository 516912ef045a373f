// Frames of a capture: taken out of a file, spoilt, and put into another.
#pragma once

#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace rvk {

using frame_bytes = std::vector<uint8_t>;

// path: a file that cards have written.
[[nodiscard]] std::vector<frame_bytes> frames_in(const std::string& path);

// A capture file's bytes; the frames stand 1 ms apart.
[[nodiscard]] std::vector<uint8_t> pcap_of(const std::vector<frame_bytes>& frames);

// It can be an Ethernet frame, and its addresses are those of a request or of a reply.
[[nodiscard]] bool is_between_us(const frame_bytes& frame);

// What a bad card, a bad cable or a curious person makes of a frame. One in ten loses its addresses too.
void spoil(frame_bytes& frame, std::mt19937& random);

} // namespace rvk
