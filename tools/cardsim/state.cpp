#include "cardsim/state.h"

#include "command/failure.h"
#include "command/values.h"

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <cstring>
#include <filesystem>
#include <unistd.h>

namespace rvk {
namespace {

using tool::format;
using bytes_t = std::vector<uint8_t>;

constexpr size_t bytes_per_line = 16;
constexpr size_t text_max = 64 << 10; // ours: four thousand lines; more is for programs

// The text of one card, or of a link's bus blocks, and where its files lie.
struct saved_text {
    card_farm& farm;
    std::string base; // of every file's name
    std::string text;

    // Writes a file, and tells of it behind what is already said in the line.
    void save_file(const std::string& name, std::span<const uint8_t> bytes, const std::string& line)
    {
        const std::string path = base + name;
        tool::save(path, bytes);
        text += line + ", in " + std::filesystem::path(path).filename().string() + '\n';
    }
    void save() const { tool::save(base + ".txt", {reinterpret_cast<const uint8_t*>(text.data()), text.size()}); }
};

// What was written to one of a farm's memories: as text, or as files named in it.
// file, line  what their names and the lines about them begin with; unit: bytes of an address there
template <typename Memory>
void save_memory(saved_text& to, Memory memory, const std::string& file = "", const std::string& line = "",
                 size_t unit = 1)
{
    for (const auto& [first, end] : to.farm.with([&](farm_content& c) { return memory(c).written(); })) {
        const auto count = static_cast<size_t>(end - first);
        const bytes_t bytes = to.farm.with([&, at = first](farm_content& c) { return memory(c).read(at, count); });
        if (count > text_max || !file.empty()) {
            const std::string addr = format("%08" PRIx64, first / unit);
            to.save_file(file + '-' + addr + ".bin", bytes, line + addr + format("  %zu bytes", count));
            continue;
        }
        for (size_t i = 0; i < count; ++i) {
            if (i % bytes_per_line == 0) { to.text += format("%s%08" PRIx64 " ", i == 0 ? "" : "\n", first + i); }
            to.text += format(" %02x", bytes[i]);
        }
        to.text += '\n';
    }
}

void save_pictures(saved_text& to, card_id card)
{
    for (const auto& [buffer, r] : to.farm.with(card, [](sim_card& c) { return c.buffers; })) {
        const std::string whole = format("-buffer%u.bmp", buffer),
                          incomplete = format("-buffer%u-incomplete.bmp", buffer);
        const bytes_t pixels = to.farm.with(card, [&r = r](sim_card& c) { return picture_from(c.pictures, r); });
        std::error_code ignored; // there is none, as a rule
        std::filesystem::remove(to.base + (r.whole ? incomplete : whole), ignored);
        to.save_file(r.whole ? whole : incomplete, tool::bmp_of(pixels, r.size, 32),
                     format("buffer %u  %u x %u, %" PRIu64 " bytes%s", buffer, r.size.hor, r.size.ver, r.received,
                            r.whole ? "" : ", incomplete"));
    }
}

void save_firmware(saved_text& to, card_id card)
{
    size_t n = 0;
    for (const firmware_file& f : to.farm.with(card, [](sim_card& c) { return c.firmware.files; })) {
        ++n;
        to.save_file(format("-firmware%zu.bin", n), f.image(),
                     format("firmware %zu  for model 0x%04x, %zu bytes", n, f.device_type, f.image().size()));
    }
}

std::string describe_files(const farm_content& c, const char* link)
{
    size_t whole = 0, incomplete = 0, images = 0, abandoned = 0, running = 0;
    for (const auto& [id, card] : c.cards) {
        for (const auto& [buffer, r] : card.buffers) { ++(r.whole ? whole : incomplete); }
        images += card.firmware.files.size();
        abandoned += card.firmware.abandoned;
        running += card.firmware.is_running();
    }
    return format(
        "%s: buffers: %zu with a whole picture, %zu with an incomplete one; firmware images: %zu acknowledged, "
        "%zu abandoned, %zu not finished\n",
        link, whole, incomplete, images, abandoned, running);
}

std::string describe_playback(const playback_log& log, const char* link)
{
    if (log.lines().empty()) { return format("%s: playback: none\n", link); }
    const std::string wrong = log.check();
    return format("%s: playback: %s, up to '%s'\n", link, wrong.empty() ? "in order" : wrong.c_str(),
                  log.lines().back().c_str());
}

} // namespace

void prepare_folder(const std::string& folder)
{
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (!error && access(folder.c_str(), W_OK | X_OK) != 0) { error.assign(errno, std::generic_category()); }
    if (!error) { return; }
    tool::fail(tool::problem::wrong_usage, "%s: cannot be made or written: %s", folder.c_str(),
               error.message().c_str());
}

void save_state(card_farm& farm, const std::string& folder, const std::string& link)
{
    prepare_folder(folder);
    std::vector<card_id> ids;
    farm.with([&ids](farm_content& c) {
        for (const auto& [id, card] : c.cards) { ids.push_back(id); }
    });
    for (const card_id card : ids) {
        saved_text to{farm, format("%s/%s-model%u-slot%u", folder.c_str(), link.c_str(), card.model, card.slot),
                      format("# %s model %u slot %u: what was written; hexadecimal, in memory order\n", link.c_str(),
                             card.model, card.slot)};
        save_memory(to, [card](farm_content& c) -> card_memory& { return c.cards[card].registers; });
        save_pictures(to, card);
        for (size_t m = 0; m < loader_data.size(); ++m) {
            const auto loaded_into = [=](farm_content& c) -> card_memory& { return c.cards[card].loaders[m].memory; };
            save_memory(to, loaded_into, format("-memory%zu", m), format("memory %zu  ", m), word_bytes);
        }
        save_firmware(to, card);
        to.save();
    }
    saved_text bus{farm, folder + '/' + link + "-bus",
                   "# " + link + ": what bus blocks wrote; hexadecimal, in memory order\n"};
    const size_t title = bus.text.size();
    save_memory(bus, [](farm_content& c) -> card_memory& { return c.bus_memory; });
    if (bus.text.size() > title) { bus.save(); }
}

std::string summary(card_farm& farm, const std::string& name)
{
    return farm.with([link = name.c_str()](farm_content& content) {
        const farm_counts& c = content.counts;
        std::string text = format("%s: received %" PRIu64 " frames: %" PRIu64 " reads, %" PRIu64
                                  " plain writes, %" PRIu64 " acknowledged writes, %" PRIu64 " refused, %" PRIu64
                                  " foreign; wrote %" PRIu64 " bytes; sent %" PRIu64 " frames\n",
                                  link, c.received, c.reads, c.plain_writes, c.acknowledged_writes, c.refused(),
                                  c.violations[static_cast<size_t>(violation::foreign)], c.bytes_written, c.replies);
        if (c.bus_reads + c.bus_writes > 0) {
            text += format("%s: bus blocks: %" PRIu64 " reads, %" PRIu64 " writes\n", link, c.bus_reads, c.bus_writes);
        }
        text += describe_files(content, link) + describe_playback(content.playback, link);
        return text +
               format("%s: refused: %s\n%s: injected: %s\n", link, c.refusals().c_str(), link, c.injections().c_str());
    });
}

} // namespace rvk
