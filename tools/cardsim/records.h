// What a farm keeps of its link's traffic for a person or a test: the last frames, and the order in which a controller
// started the demo. No lock of their own.
#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace rvk {

struct kept_frame {
    uint64_t time_us = 0;
    std::vector<uint8_t> bytes;
};

// The last frames both ways, foreign ones included.
class frame_trail {
public:
    void keep(size_t frames); // forgets everything; 0, as at first: keeps nothing from here on
    void add(uint64_t time_us, std::span<const uint8_t> frame);

    [[nodiscard]] const std::vector<kept_frame>& frames(); // oldest first
    // A capture file's bytes: the classic format with microseconds, link type Ethernet, little-endian.
    [[nodiscard]] std::vector<uint8_t> as_pcap();

private:
    std::vector<kept_frame> ring;
    size_t most = 0;
    size_t oldest = 0; // index of the entry to be overwritten next, once the ring is full
};

// What reached the video-processing FPGA's playback registers, and which pictures were ended in between, as lines of
// text: "ready? 00", "ready? -", "a2 := 00 ca 9a 3b", "picture 16". Nothing is refused for its order.
class playback_log {
public:
    // Notes what belongs to playback and nothing else. A readiness read behind anything else begins a new log: the
    // controller has started anew. Bounded: what comes behind 200 lines is not kept.
    void note_write(uint32_t addr, std::span<const uint8_t> bytes);
    void note_readiness(int answered); // the byte; -1: it was not answered
    void note_picture(uint8_t buffer); // one of the demo's ended, whole; alone, behind nothing, it is no demo

    [[nodiscard]] const std::vector<std::string>& lines() const { return noted; }

    // Result: empty when the lines, without readiness reads and pictures put later, are the traffic of a whole start or
    // a beginning of it; otherwise one line that says what came in the place of what.
    [[nodiscard]] std::string check() const;

private:
    void note(std::string line);
    std::vector<std::string> noted;
};

inline constexpr char end_of_playback[] = "picture 24"; // the last line of a whole start's traffic

} // namespace rvk
