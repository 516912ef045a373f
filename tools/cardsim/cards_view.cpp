// The farm seen from outside: its records, what its cards hold, and what it kept for a person.
#include "cardsim/cards.h"

#include "files/write_file.h"

#include <algorithm>
#include <cassert>

namespace rvk {

const sim_card* card_farm::find(card_id card) const
{
    const auto found = all.find(card);
    return found == all.end() ? nullptr : &found->second;
}

void card_farm::set_faults(const card_faults& faults)
{
    assert(faults.oversized_len <= reply_data_max);
    scoped_lock hold(lock);
    dice.load(faults);
}

void card_farm::set_behaviour(const card_behaviour& behaviour)
{
    assert(std::max({behaviour.generation_bytes, behaviour.readiness_bytes, behaviour.status_bytes}) <= reply_data_max);
    scoped_lock hold(lock);
    script.load(behaviour);
}

farm_counts card_farm::counts() const
{
    scoped_lock hold(lock);
    return counted;
}

void card_farm::write(card_id card, uint32_t addr, std::span<const uint8_t> bytes)
{
    scoped_lock hold(lock);
    all[card].registers.write(addr, bytes);
}

std::vector<uint8_t> card_farm::read(card_id card, uint32_t addr, size_t len) const
{
    std::vector<uint8_t> bytes(len);
    scoped_lock hold(lock);
    if (const sim_card* found = find(card)) { found->registers.read(addr, bytes); }
    return bytes;
}

std::vector<card_id> card_farm::cards() const
{
    scoped_lock hold(lock);
    std::vector<card_id> ids;
    for (const auto& [id, card] : all) { ids.push_back(id); }
    return ids;
}

std::vector<extent> card_farm::written(card_id card) const
{
    scoped_lock hold(lock);
    const sim_card* found = find(card);
    return found == nullptr ? std::vector<extent>{} : found->registers.written();
}

std::vector<picture_record> card_farm::pictures(card_id card) const
{
    scoped_lock hold(lock);
    std::vector<picture_record> records;
    if (const sim_card* found = find(card)) {
        for (const auto& [buffer, record] : found->buffers) { records.push_back(record); }
    }
    return records;
}

std::vector<uint8_t> card_farm::picture(card_id card, uint8_t buffer) const
{
    scoped_lock hold(lock);
    const sim_card* found = find(card);
    if (found == nullptr) { return {}; }
    const auto record = found->buffers.find(buffer);
    return record == found->buffers.end() ? std::vector<uint8_t>{} : picture_from(found->pictures, record->second);
}

void card_farm::write_pictures(card_id card, uint64_t at, std::span<const uint8_t> bytes)
{
    scoped_lock hold(lock);
    all[card].pictures.write(at, bytes);
}

std::vector<uint8_t> card_farm::read_pictures(card_id card, uint64_t at, size_t len) const
{
    std::vector<uint8_t> bytes(len);
    scoped_lock hold(lock);
    if (const sim_card* found = find(card)) { found->pictures.read(at, bytes); }
    return bytes;
}

std::vector<firmware_file> card_farm::firmware(card_id card) const
{
    scoped_lock hold(lock);
    const sim_card* found = find(card);
    return found == nullptr ? std::vector<firmware_file>{} : found->firmware.files();
}

firmware_progress card_farm::transfer(card_id card) const
{
    scoped_lock hold(lock);
    const sim_card* found = find(card);
    return found == nullptr ? firmware_progress{} : found->firmware.progress();
}

std::vector<extent> card_farm::loaded(card_id card, size_t memory) const
{
    scoped_lock hold(lock);
    const sim_card* found = find(card);
    return found == nullptr ? std::vector<extent>{} : found->loaded[memory].written.list();
}

std::vector<uint8_t> card_farm::read_loaded(card_id card, size_t memory, uint64_t at, size_t len) const
{
    std::vector<uint8_t> bytes(len);
    scoped_lock hold(lock);
    if (const sim_card* found = find(card)) { found->loaded[memory].pages.read(at, bytes); }
    return bytes;
}

void card_farm::write_bus(uint32_t addr, std::span<const uint8_t> bytes)
{
    scoped_lock hold(lock);
    block_memory.write(addr, bytes);
}

std::vector<uint8_t> card_farm::read_bus(uint32_t addr, size_t len) const
{
    std::vector<uint8_t> bytes(len);
    scoped_lock hold(lock);
    block_memory.read(addr, bytes);
    return bytes;
}

std::vector<extent> card_farm::written_bus() const
{
    scoped_lock hold(lock);
    return block_memory.written();
}

std::vector<std::string> card_farm::playback() const
{
    scoped_lock hold(lock);
    return played.lines();
}

void card_farm::record_history(size_t max)
{
    scoped_lock hold(lock);
    recorded.clear();
    record_max = max;
    record_overflow = 0;
}

std::vector<recorded_request> card_farm::history() const
{
    scoped_lock hold(lock);
    return recorded;
}

uint64_t card_farm::history_overflow() const
{
    scoped_lock hold(lock);
    return record_overflow;
}

void card_farm::keep_trail(size_t frames)
{
    scoped_lock hold(lock);
    trail.keep(frames);
}

std::string card_farm::write_pcap(const std::string& path) const
{
    std::vector<uint8_t> file;
    {
        scoped_lock hold(lock);
        file = trail.as_pcap();
    }
    return write_file(path, file);
}

} // namespace rvk
