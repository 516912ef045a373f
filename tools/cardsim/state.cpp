#include "cardsim/state.h"

#include "files/bmp.h"
#include "files/write_file.h"

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

std::string number(uint64_t value) { return std::to_string(value); }

std::string last_part(const std::string& path) { return std::filesystem::path(path).filename().string(); }

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

// Each of these adds its lines to the text. Result: as of save_state.
std::string save_stretch(const extent& e, std::span<const uint8_t> bytes, const std::string& base, std::string& text)
{
    if (bytes.size() <= text_max) {
        append_lines(text, e.first, bytes);
        return {};
    }
    const std::string path = base + '-' + hex(e.first, 8) + ".bin";
    text += hex(e.first, 8) + "  " + number(bytes.size()) + " bytes, in " + last_part(path) + '\n';
    return write_file(path, bytes);
}

std::string save_registers(const card_farm& farm, card_id card, const std::string& base, std::string& text)
{
    for (const extent& e : farm.written(card)) {
        const auto bytes = farm.read(card, static_cast<uint32_t>(e.first), static_cast<size_t>(e.end - e.first));
        if (std::string error = save_stretch(e, bytes, base, text); !error.empty()) { return error; }
    }
    return {};
}

std::string save_loaded(const card_farm& farm, card_id card, const std::string& base, std::string& text)
{
    for (size_t memory = 0; memory < loader_memories.size(); ++memory) {
        for (const extent& e : farm.loaded(card, memory)) {
            const uint64_t addr = e.first / loader_word;
            const std::string path = base + "-memory" + number(memory) + '-' + hex(addr, 8) + ".bin";
            const auto bytes = farm.read_loaded(card, memory, e.first, static_cast<size_t>(e.end - e.first));
            text += "memory " + number(memory) + "  " + hex(addr, 8) + "  " + number(bytes.size()) + " bytes, in " +
                    last_part(path) + '\n';
            if (std::string error = write_file(path, bytes); !error.empty()) { return error; }
        }
    }
    return {};
}

// The picture loader pads lines to whole bursts.
std::string save_loaded_picture(const card_farm& farm, card_id card, const std::string& base, const loaded_picture& p)
{
    const auto written = farm.loaded(card, p.memory);
    const uint64_t at = uint64_t{p.addr} * loader_word;
    const bool there =
        std::any_of(written.begin(), written.end(), [at](const extent& e) { return e.first <= at && at < e.end; });
    if (!there) { return {}; }
    const size_t line = size_t{p.hor} * pixel_bytes;
    const size_t stride = (line + loader_burst - 1) / loader_burst * loader_burst;
    std::vector<uint8_t> pixels;
    for (size_t y = 0; y < p.ver; ++y) {
        const auto bytes = farm.read_loaded(card, p.memory, at + y * stride, line);
        pixels.insert(pixels.end(), bytes.begin(), bytes.end());
    }
    const std::string path = base + "-memory" + number(p.memory) + '-' + hex(p.addr, 8) + ".bmp";
    return write_file(path, bmp_of(pixels, p.hor, p.ver, 32));
}

std::string save_text(const std::string& base, const std::string& text)
{
    return write_file(base + ".txt", {reinterpret_cast<const uint8_t*>(text.data()), text.size()});
}

std::string save_bus(const card_farm& farm, const std::string& base, const std::string& link)
{
    const auto written = farm.written_bus();
    if (written.empty()) { return {}; }
    std::string text = "# " + link + ": what bus blocks wrote; hexadecimal, in memory order\n";
    for (const extent& e : written) {
        const auto bytes = farm.read_bus(static_cast<uint32_t>(e.first), static_cast<size_t>(e.end - e.first));
        if (std::string error = save_stretch(e, bytes, base, text); !error.empty()) { return error; }
    }
    return save_text(base, text);
}

std::string save_pictures(const card_farm& farm, card_id card, const std::string& base, std::string& text)
{
    for (const picture_record& r : farm.pictures(card)) {
        const std::string whole = base + "-buffer" + number(r.buffer) + ".bmp";
        const std::string incomplete = base + "-buffer" + number(r.buffer) + "-incomplete.bmp";
        const std::string& path = r.whole ? whole : incomplete;
        auto pixels = farm.picture(card, r.buffer);
        pixels.resize(size_t{r.hor} * r.ver * pixel_bytes); // the buffer may have been set up anew since
        std::error_code ignored;                            // there is none, as a rule
        std::filesystem::remove(r.whole ? incomplete : whole, ignored);
        if (std::string error = write_file(path, bmp_of(pixels, r.hor, r.ver, 32)); !error.empty()) { return error; }
        text += "buffer " + number(r.buffer) + "  " + number(r.hor) + " x " + number(r.ver) + ", " +
                number(r.received) + " bytes" + (r.whole ? "" : ", incomplete") + ", in " + last_part(path) + '\n';
    }
    return {};
}

std::string save_firmware(const card_farm& farm, card_id card, const std::string& base, std::string& text)
{
    uint64_t n = 0;
    for (const firmware_file& f : farm.firmware(card)) {
        const std::string path = base + "-firmware" + number(++n) + ".bin";
        if (std::string error = write_file(path, f.image()); !error.empty()) { return error; }
        text += "firmware " + number(n) + "  for model 0x" + hex(f.device_type, 4) + ", " + number(f.image().size()) +
                " bytes, in " + last_part(path) + '\n';
    }
    return {};
}

std::string save_card(const card_farm& farm, card_id card, const std::string& base, const std::string& title)
{
    std::string text = "# " + title + ": what was written; hexadecimal, in memory order\n";
    for (const auto save : {save_registers, save_pictures, save_loaded, save_firmware}) {
        if (std::string error = save(farm, card, base, text); !error.empty()) { return error; }
    }
    return save_text(base, text);
}

std::string describe_files(const card_farm& farm, const std::string& link)
{
    uint64_t whole = 0, incomplete = 0, images = 0, abandoned = 0, running = 0;
    for (const card_id card : farm.cards()) {
        for (const picture_record& r : farm.pictures(card)) { ++(r.whole ? whole : incomplete); }
        const firmware_progress p = farm.transfer(card);
        images += p.completed;
        abandoned += p.abandoned;
        running += p.registers > 0 && !p.whole;
    }
    return link + ": buffers: " + number(whole) + " with a whole picture, " + number(incomplete) +
           " with an incomplete one; firmware images: " + number(images) + " acknowledged, " + number(abandoned) +
           " abandoned, " + number(running) + " not finished\n";
}

std::string describe_playback(const card_farm& farm, const std::string& link)
{
    const auto lines = farm.playback();
    const std::string wrong = check_playback(lines);
    if (lines.empty()) { return link + ": playback: none\n"; }
    return link + ": playback: " + (wrong.empty() ? "in order" : wrong) + ", up to '" + lines.back() + "'\n";
}

// Nothing where there was none, as on most links.
std::string describe_bus(const farm_counts& counts, const std::string& link)
{
    if (counts.bus_reads + counts.bus_writes == 0) { return {}; }
    return link + ": bus blocks: " + number(counts.bus_reads) + " reads, " + number(counts.bus_writes) + " writes\n";
}

} // namespace

std::string save_state(const card_farm& farm, const std::string& folder, const std::string& link,
                       std::span<const loaded_picture> loaded)
{
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) { return folder + ": cannot be made: " + error.message(); }
    for (const card_id card : farm.cards()) {
        const std::string model = number(card.model), slot = number(card.slot);
        const std::string base = folder + '/' + link + "-model" + model + "-slot" + slot;
        const std::string title = link + " model " + model + " slot " + slot;
        if (std::string wrong = save_card(farm, card, base, title); !wrong.empty()) { return wrong; }
        for (const loaded_picture& p : loaded) {
            if (std::string wrong = save_loaded_picture(farm, card, base, p); !wrong.empty()) { return wrong; }
        }
    }
    return save_bus(farm, folder + '/' + link + "-bus", link);
}

std::string summary(const card_farm& farm, const std::string& link)
{
    const farm_counts counts = farm.counts();
    return link + ": received " + number(counts.received) + " frames: " + number(counts.reads) + " reads, " +
           number(counts.plain_writes) + " plain writes, " + number(counts.acknowledged_writes) +
           " acknowledged writes, " + number(counts.refused()) + " refused, " + number(counts.of(verdict::foreign)) +
           " foreign; wrote " + number(counts.bytes_written) + " bytes; sent " + number(counts.replies) + " frames\n" +
           describe_bus(counts, link) + describe_files(farm, link) + describe_playback(farm, link) + link +
           ": refused: " + counts.refusals() + '\n' + link + ": injected: " + counts.injections() + '\n';
}

} // namespace rvk
