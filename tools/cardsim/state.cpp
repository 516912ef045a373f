#include "cardsim/state.h"

#include "cardsim/pcap.h"

#include <algorithm>
#include <cstdio>
#include <filesystem>

namespace rvk {
namespace {

constexpr size_t bytes_per_line = 16;
constexpr uint64_t text_max = 64 << 10; // ours: four thousand lines; more is for programs

std::string hex(uint64_t value, int digits)
{
    char text[17];
    std::snprintf(text, sizeof text, "%0*llx", digits, static_cast<unsigned long long>(value));
    return text;
}

void append_lines(std::string& text, uint64_t addr, std::span<const uint8_t> bytes)
{
    while (!bytes.empty()) {
        const auto line = bytes.first(std::min(bytes.size(), bytes_per_line));
        text += hex(addr, 8) + ' ';
        for (const uint8_t b : line) { text += ' ' + hex(b, 2); }
        text += '\n';
        addr += line.size();
        bytes = bytes.subspan(line.size());
    }
}

std::string save_card(const card_farm& farm, card_id card, const std::string& base, const std::string& title)
{
    std::string text = "# " + title + ": what was written; hexadecimal, in memory order\n";
    for (const extent& e : farm.written(card)) {
        const auto bytes = farm.read(card, static_cast<uint32_t>(e.first), static_cast<size_t>(e.end - e.first));
        if (bytes.size() <= text_max) {
            append_lines(text, e.first, bytes);
            continue;
        }
        const std::string path = base + '-' + hex(e.first, 8) + ".bin";
        if (std::string error = write_file(path, bytes); !error.empty()) { return error; }
        text += hex(e.first, 8) + "  " + std::to_string(bytes.size()) + " bytes, in " +
                std::filesystem::path(path).filename().string() + '\n';
    }
    return write_file(base + ".txt", {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

} // namespace

std::string save_state(const card_farm& farm, const std::string& folder, const std::string& link)
{
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) { return folder + ": cannot be made: " + error.message(); }
    for (const card_id card : farm.cards()) {
        const std::string model = std::to_string(card.model), slot = std::to_string(card.slot);
        const std::string base = folder + '/' + link + "-model" + model + "-slot" + slot;
        const std::string title = link + " model " + model + " slot " + slot;
        if (std::string wrong = save_card(farm, card, base, title); !wrong.empty()) { return wrong; }
    }
    return {};
}

std::string summary(const farm_counts& counts, const std::string& link)
{
    const auto number = [](uint64_t n) { return std::to_string(n); };
    return link + ": received " + number(counts.received) + " frames: " + number(counts.reads) + " reads, " +
           number(counts.plain_writes) + " plain writes, " + number(counts.acknowledged_writes) +
           " acknowledged writes, " + number(counts.refused()) + " refused, " + number(counts.of(verdict::foreign)) +
           " foreign; wrote " + number(counts.bytes_written) + " bytes; sent " + number(counts.replies) + " frames\n" +
           link + ": refused: " + counts.refusals() + '\n' + link + ": injected: " + counts.injections() + '\n';
}

} // namespace rvk
