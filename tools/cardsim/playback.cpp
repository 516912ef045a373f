#include "cardsim/playback.h"

#include "eth_raw/registers.h"

#include <algorithm>
#include <array>
#include <cstdio>

namespace rvk {
namespace {

constexpr size_t lines_max = 200;
constexpr std::array registers{playback::timing_a, playback::timing_b, playback::play, playback::timing_load,
                               playback::interval, playback::number,   playback::reset};

constexpr std::array order{
    "a2 := 00 ca 9a 3b",
    "a6 := 08",
    "a7 := 00",
    "picture 16",
    "a7 := 01",
    "22002 := 4c 04 d6 0b",
    "2200a := 16 00 0a 00 60 00 52 00 20 04 c2 08",
    "a1 := 01",
    "a0 := 01",
    "a0 := 00",
    "picture 17",
    "picture 18",
    "picture 19",
    "picture 20",
    "picture 21",
    "picture 22",
    "picture 23",
    "picture 24",
};

std::string hex(uint8_t value)
{
    char text[3];
    std::snprintf(text, sizeof text, "%02x", value);
    return text;
}

bool is_readiness(const std::string& line) { return line.starts_with("ready?"); }
bool is_picture(const std::string& line) { return line.starts_with("picture"); }

} // namespace

void playback_log::note_write(uint32_t addr, std::span<const uint8_t> bytes)
{
    if (std::find(registers.begin(), registers.end(), addr) == registers.end()) { return; }
    char line[16];
    std::snprintf(line, sizeof line, "%x :=", static_cast<unsigned>(addr));
    std::string text = line;
    for (const uint8_t b : bytes) { text += ' ' + hex(b); }
    note(std::move(text));
}

void playback_log::note_readiness(int answered)
{
    if (!noted.empty() && !is_readiness(noted.back())) { noted.clear(); }
    note("ready? " + (answered < 0 ? "-" : hex(static_cast<uint8_t>(answered))));
}

void playback_log::note_picture(uint8_t buffer)
{
    if (!noted.empty()) { note("picture " + std::to_string(buffer)); }
}

void playback_log::note(std::string line)
{
    if (noted.size() < lines_max) { noted.push_back(std::move(line)); }
}

std::span<const char* const> playback_order() { return order; }

std::string check_playback(std::span<const std::string> lines)
{
    size_t at = 0;
    for (const std::string& line : lines) {
        if (is_readiness(line) || (at == order.size() && is_picture(line))) { continue; }
        if (at == order.size()) { return "'" + line + "' behind the end"; }
        if (line != order[at]) { return "'" + line + "' in the place of '" + order[at] + "'"; }
        ++at;
    }
    return {};
}

} // namespace rvk
