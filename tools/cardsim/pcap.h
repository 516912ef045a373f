// The last frames of a link, and the capture file they are written to when a test fails.
// The file is the classic format with microseconds, link type Ethernet, in little-endian order. No lock of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace rvk {

class frame_trail {
public:
    void keep(size_t frames); // forgets everything; 0: keeps nothing from here on
    void add(uint64_t time_us, std::span<const uint8_t> frame);

    [[nodiscard]] std::vector<uint8_t> as_pcap() const; // the file's bytes, oldest frame first

private:
    struct entry {
        uint64_t time_us = 0;
        std::vector<uint8_t> frame;
    };
    std::vector<entry> ring;
    size_t room = 0;
    size_t oldest = 0; // index of the entry to be overwritten next, once the ring is full
};

} // namespace rvk
