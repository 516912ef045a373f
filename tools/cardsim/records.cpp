#include "cardsim/records.h"

#include "base/bytes.h"
#include "eth_raw/registers.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace rvk {
namespace {

constexpr uint32_t pcap_magic = 0xA1B2C3D4;      // microseconds; a reader takes the byte order from it
constexpr uint32_t pcap_version = 4u << 16 | 2u; // 2.4, two 16-bit fields
constexpr uint32_t longest_frame = 65535, link_type_ethernet = 1;

void put(std::vector<uint8_t>& out, std::initializer_list<uint64_t> values)
{
    for (const uint64_t value : values) {
        out.resize(out.size() + 4);
        store_le32(&out[out.size() - 4], static_cast<uint32_t>(value));
    }
}

constexpr size_t lines_max = 200;
constexpr std::array playback_registers{playback::timing_a, playback::timing_b, playback::play, playback::timing_load,
                                        playback::interval, playback::number,   playback::reset};

// The traffic of a whole start, without the readiness reads in front of it; behind these, pictures 17 to 24.
constexpr std::array opening{"a2 := 00 ca 9a 3b",
                             "a6 := 08",
                             "a7 := 00",
                             "picture 16",
                             "a7 := 01",
                             "22002 := 4c 04 d6 0b",
                             "2200a := 16 00 0a 00 60 00 52 00 20 04 c2 08",
                             "a1 := 01",
                             "a0 := 01",
                             "a0 := 00"};

std::string due_line(size_t at) { return at < opening.size() ? opening[at] : "picture " + std::to_string(at + 7); }

std::string hex(uint32_t value, int digits)
{
    char text[9];
    std::snprintf(text, sizeof text, "%0*x", digits, static_cast<unsigned>(value));
    return text;
}

bool is_readiness(const std::string& line) { return line.starts_with("ready?"); }

} // namespace

void frame_trail::keep(size_t frames)
{
    std::vector<kept_frame>().swap(ring);
    most = frames;
    oldest = 0;
}

void frame_trail::add(uint64_t time_us, std::span<const uint8_t> frame)
{
    if (most == 0) { return; }
    const bool full = ring.size() == most;
    kept_frame& to = full ? ring[oldest] : ring.emplace_back();
    to.time_us = time_us;
    to.bytes.assign(frame.begin(), frame.end());
    if (full) { oldest = (oldest + 1) % most; }
}

const std::vector<kept_frame>& frame_trail::frames()
{
    std::rotate(ring.begin(), ring.begin() + static_cast<std::ptrdiff_t>(oldest), ring.end());
    oldest = 0;
    return ring;
}

std::vector<uint8_t> frame_trail::as_pcap()
{
    std::vector<uint8_t> out;
    put(out, {pcap_magic, pcap_version, 0, 0, longest_frame, link_type_ethernet});
    for (const kept_frame& f : frames()) {
        put(out, {f.time_us / 1'000'000, f.time_us % 1'000'000, f.bytes.size(), f.bytes.size()});
        out.insert(out.end(), f.bytes.begin(), f.bytes.end());
    }
    return out;
}

void playback_log::note_write(uint32_t addr, std::span<const uint8_t> bytes)
{
    if (std::find(playback_registers.begin(), playback_registers.end(), addr) == playback_registers.end()) { return; }
    std::string text = hex(addr, 1) + " :=";
    for (const uint8_t b : bytes) { text += ' ' + hex(b, 2); }
    note(std::move(text));
}

void playback_log::note_readiness(int answered)
{
    if (!noted.empty() && !is_readiness(noted.back())) { noted.clear(); }
    note("ready? " + (answered < 0 ? "-" : hex(static_cast<uint32_t>(answered), 2)));
}

void playback_log::note_picture(uint8_t buffer)
{
    if (!noted.empty()) { note("picture " + std::to_string(buffer)); }
}

void playback_log::note(std::string line)
{
    if (noted.size() < lines_max) { noted.push_back(std::move(line)); }
}

std::string playback_log::check() const
{
    constexpr size_t all = opening.size() + 8;
    size_t at = 0;
    for (const std::string& line : noted) {
        if (is_readiness(line) || (at == all && line.starts_with("picture"))) { continue; }
        if (at == all) { return "'" + line + "' behind the end"; }
        if (line != due_line(at)) { return "'" + line + "' in the place of '" + due_line(at) + "'"; }
        ++at;
    }
    return {};
}

} // namespace rvk
