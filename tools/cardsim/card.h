// One card: its memory; its ports for pictures and their read-back, for the picture loader and for firmware, which say
// what each register's write or read means, and in which order; and the one place that knows which address belongs to
// which part. No lock, no clock, no faults: a farm has those.
//
// Where a buffer lies in card memory is the simulated cards' own choice: buffer n begins at byte n x 128 MiB, that is
// at word n x 0x1000000 of a read command. From there on lie the picture's lines, first line first, each padded to 64
// bytes, laid out as the controller reads them back: 1,400 bytes to each 1,408 of card memory, since that is how far
// apart its steps are. So a picture that was put is what a read-back from the buffer's start gets.
#pragma once

#include "base/picture.h"
#include "cardsim/frames.h"
#include "eth_raw/registers.h"

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <unordered_map>
#include <vector>

namespace rvk {

using extents = std::map<uint64_t, uint64_t>; // stretches of addresses: first -> one behind the last

// Bytes at 64-bit addresses, of which only pages that were written exist; the others read as 0. Knows which stretches
// were written, so that they can be listed and saved.
class card_memory {
public:
    // last     address behind which they go on at 0; 2^n - 1, n at least 12
    // listing  false: keeps no stretches, of which the lines of pictures would be many
    explicit card_memory(uint64_t last, bool listing = true) : mask(last), lists(listing) {}

    void write(uint64_t addr, std::span<const uint8_t> bytes);
    void read(uint64_t addr, std::span<uint8_t> out) const;
    [[nodiscard]] std::vector<uint8_t> read(uint64_t addr, size_t count) const;

    [[nodiscard]] const extents& written() const { return noted; } // neither overlapping nor touching

private:
    using page = std::array<uint8_t, 4096>;
    void note(uint64_t first, uint64_t end);

    uint64_t mask;
    bool lists;
    std::unordered_map<uint64_t, std::unique_ptr<page>> pages; // by address / page size
    extents noted;
};

struct picture_record {
    uint8_t buffer = 0;
    picture_size size{};
    uint64_t received = 0; // bytes taken
    bool whole = false;    // ended, with everything that belongs to it and nothing else
};
using picture_records = std::map<uint8_t, picture_record>; // by buffer number; what each was set up as last

struct picture_port {
    bool for_demo; // the port of buffers 16 to 25
    enum class phase : uint8_t { idle, set_up, taking } now = phase::idle;
    uint8_t buffer = 0;                 // that was set up last
    bool short_seen = false;            // a frame of less than 1,400 bytes came: it must have been the last
    violation spoilt = violation::none; // the first thing wrong with the data
};

// A picture's bytes as they were streamed: hor x ver x 4, lines without padding.
[[nodiscard]] std::vector<uint8_t> picture_from(const card_memory& memory, const picture_record& record);

// Command, start, status, data window: in this order for each step.
struct read_back_port {
    enum class phase : uint8_t { idle, commanded, started, looked_at } now = phase::idle;
    uint64_t from = 0; // byte in card memory
    uint32_t bursts = 0;
};

// One memory of the picture loader. A piece comes in frames of 1,400 bytes at the data port's address, 1,400 further,
// and so on; the command that ends it carries the address in words, the number of bursts, and 1. A piece is put
// together first and stored with its command, so that one whose frames are not all there is not stored.
struct loader_port {
    card_memory memory{UINT64_MAX}; // by byte: 8 times the loader's addresses
    std::vector<uint8_t> piece{};
};

struct firmware_file {
    uint16_t device_type = 0;   // the model that the controller named
    std::vector<uint8_t> bytes; // head and image
    [[nodiscard]] std::span<const uint8_t> image() const;
};

// A card's firmware memory: takes one file after another, register by register and piece by piece, checks what a card
// checks, and keeps every file that it acknowledged to the last byte. A part of a file is never kept as a whole one.
struct firmware_port {
    size_t registers = 0;  // of the file information, written so far
    uint32_t total = 0;    // bytes announced
    uint64_t received = 0; // bytes taken
    bool whole = false;    // the last one
    size_t abandoned = 0;  // transfers that another began before they were whole
    firmware_file coming{};
    std::vector<firmware_file> files{}; // oldest first

    [[nodiscard]] uint32_t next_piece() const;                                // its number, from 1; 0 while none is due
    [[nodiscard]] bool is_running() const { return registers > 0 && !whole; } // a transfer
};

// Card: registers of single cards of model 0 that injected faults and the log of the playback know.
struct card_register {
    uint8_t slot;
    uint32_t addr;
};
inline constexpr card_register generation_at{generation_slot, generation_register};
inline constexpr card_register readiness_at{playback_slot, readiness_register};
inline constexpr card_register lvds_at{lvds_slot, lvds_register};

class sim_card {
public:
    // Carries out a write, acknowledged or not. One that is_refused() has changed nothing.
    [[nodiscard]] violation write(const request_fields& request);

    // Fills `out`, at least as many bytes as the read asked for, unless the violation is one that is refused.
    [[nodiscard]] violation read(const request_fields& request, std::span<uint8_t> out);

    // The demo's buffer of which this write, once carried out, has ended the picture.
    [[nodiscard]] std::optional<uint8_t> demo_picture_ended(const request_fields& request) const;

    card_memory registers{UINT32_MAX}; // what was written to the data ports of pictures and firmware is not in it
    card_memory pictures{UINT64_MAX, false};
    picture_records buffers;
    firmware_port firmware;
    std::array<loader_port, loader_data.size()> loaders;

private:
    violation write_part(const request_fields& request);

    picture_port demo_port{.for_demo = true}, other_port{.for_demo = false};
    read_back_port read_back;
};

} // namespace rvk
