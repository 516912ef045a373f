// The order in which a controller starts the demo, as lines of text that can be compared: what reached the video-
// processing FPGA's playback registers, and which pictures were ended in between. Nothing is refused for its order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace rvk {

class playback_log {
public:
    // Notes what belongs to playback and nothing else. A readiness read behind anything else begins a new log: the
    // controller has started anew. Bounded: what comes behind 200 lines is not kept.
    void note_write(uint32_t addr, std::span<const uint8_t> bytes);
    void note_readiness(int answered); // the byte; -1: it was not answered
    void note_picture(uint8_t buffer); // one of the demo's ended, whole; alone, behind nothing, it is no demo

    // "ready? 00", "ready? -", "a2 := 00 ca 9a 3b", "picture 16".
    [[nodiscard]] const std::vector<std::string>& lines() const { return noted; }

private:
    void note(std::string line);
    std::vector<std::string> noted;
};

// The traffic of a whole start, without the readiness reads in front of it.
[[nodiscard]] std::span<const char* const> playback_order();

// Result: empty when the lines, without readiness reads and pictures put later, are that traffic or a beginning of it;
// otherwise one line that says what came in the place of what.
[[nodiscard]] std::string check_playback(std::span<const std::string> lines);

} // namespace rvk
