// The cards at the far end of one link: a request frame in, reply frames out. No socket, no clock, no thread.
//
// Keeps one card per (model, slot); every such pair is a card that is there. Checks each frame as a card would, counts
// by name what no controller should send, and does wrong on purpose what its two records ask for. Time is a
// number of microseconds that the caller brings and that never goes back. `card_link` feeds it from a socket; tests
// with simulated time and the fuzzer call it themselves. Any thread may call anything: one lock, innermost, nothing is
// called under it.
#pragma once

#include "base/mutex.h"
#include "cardsim/behaviour.h"
#include "cardsim/bus_memory.h"
#include "cardsim/card.h"
#include "cardsim/counts.h"
#include "cardsim/faults.h"
#include "cardsim/pcap.h"
#include "cardsim/playback.h"
#include "cardsim/replies.h"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <utility>
#include <vector>

namespace rvk {

struct card_id {
    uint16_t model = 0;
    uint8_t slot = 0;
    auto operator<=>(const card_id&) const = default;
};

// A frame of the controller, as it came.
struct recorded_request {
    uint64_t time_us = 0;
    verdict said = verdict::good;
    bool lost = false; // by the fault `loss`: the cards did not see it
    std::vector<uint8_t> frame;
};

class card_farm {
public:
    explicit card_farm(const card_faults& faults = {});

    // Takes one frame received at now_us, of any length, and appends to `out` what goes back now, in order: replies
    // that became due meanwhile first. What is appended belongs to the caller.
    void request(std::span<const uint8_t> frame, uint64_t now_us, std::vector<reply_frame>& out) RVK_EXCLUDES(lock);

    // Appends the held-back replies that are due at now_us.
    void due(uint64_t now_us, std::vector<reply_frame>& out) RVK_EXCLUDES(lock);
    // When the next held-back reply is due; nothing when none is held.
    [[nodiscard]] std::optional<uint64_t> next_due_us() const RVK_EXCLUDES(lock);

    // From the next frame on. Starts the record's chances over; replies already held back stay so.
    void set_faults(const card_faults& faults) RVK_EXCLUDES(lock);
    // From the next frame on. What was counted down starts over.
    void set_behaviour(const card_behaviour& behaviour) RVK_EXCLUDES(lock);
    [[nodiscard]] farm_counts counts() const RVK_EXCLUDES(lock);

    // The cards' register memory, for presetting and for comparing: plain bytes, whatever their addresses mean. A card
    // comes to be with its first write.
    void write(card_id card, uint32_t addr, std::span<const uint8_t> bytes) RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<uint8_t> read(card_id card, uint32_t addr, size_t len) const RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<card_id> cards() const RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<extent> written(card_id card) const RVK_EXCLUDES(lock);

    // Pictures: what every buffer was set up as last, by buffer number, and one's bytes as they were streamed (hor x
    // ver x 4, lines without padding; none when the buffer was never set up).
    [[nodiscard]] std::vector<picture_record> pictures(card_id card) const RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<uint8_t> picture(card_id card, uint8_t buffer) const RVK_EXCLUDES(lock);

    // Picture memory as a read-back sees it, by byte (8 times a read command's address), for presetting and comparing.
    void write_pictures(card_id card, uint64_t at, std::span<const uint8_t> bytes) RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<uint8_t> read_pictures(card_id card, uint64_t at, size_t len) const RVK_EXCLUDES(lock);

    // Firmware: every file that the card acknowledged to its last byte, oldest first; and how far the running one is.
    // A transfer addresses model 0 of a slot, whatever model it names.
    [[nodiscard]] std::vector<firmware_file> firmware(card_id card) const RVK_EXCLUDES(lock);
    [[nodiscard]] firmware_progress transfer(card_id card) const RVK_EXCLUDES(lock);

    // What the picture loader put into memory 0 or 1 of a card: where, and the bytes there. By byte: 8 times the
    // loader's addresses.
    [[nodiscard]] std::vector<extent> loaded(card_id card, size_t memory) const RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<uint8_t> read_loaded(card_id card, size_t memory, uint64_t at, size_t len) const
        RVK_EXCLUDES(lock);

    // The memory behind the older block protocol, which belongs to no card, for presetting and for comparing.
    void write_bus(uint32_t addr, std::span<const uint8_t> bytes) RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<uint8_t> read_bus(uint32_t addr, size_t len) const RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<extent> written_bus() const RVK_EXCLUDES(lock);

    // How the demo was started, as lines that check_playback() takes.
    [[nodiscard]] std::vector<std::string> playback() const RVK_EXCLUDES(lock);

    // Keeps the controller's next `max` frames (0: none, the default) and forgets those kept before.
    void record_history(size_t max) RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<recorded_request> history() const RVK_EXCLUDES(lock);
    [[nodiscard]] uint64_t history_overflow() const RVK_EXCLUDES(lock); // frames that found it full

    // Keeps the last `frames` frames both ways, foreign ones included (0: none, the default).
    void keep_trail(size_t frames) RVK_EXCLUDES(lock);
    // Writes them as a pcap file; times are those that request() and due() were given.
    // Result: empty, or one line that says what was wrong.
    [[nodiscard]] std::string write_pcap(const std::string& path) const RVK_EXCLUDES(lock);

private:
    struct held_reply {
        uint64_t due_us;
        bool behind_next; // goes out behind the next reply, at the latest when due
        std::vector<uint8_t> bytes;
    };

    void record(std::span<const uint8_t> frame, uint64_t now_us, verdict said, bool lost) RVK_REQUIRES(lock);
    void take_bus_packet(std::span<const uint8_t> packet, uint64_t now_us, std::vector<reply_frame>& out)
        RVK_REQUIRES(lock);
    bool act_on_bus(const bus_request& request, reply_frame& answer) RVK_REQUIRES(lock);
    void answer_bus_read(const bus_request& request, reply_frame& answer) RVK_REQUIRES(lock);
    void spoil_bus(reply_frame& answer) RVK_REQUIRES(lock);
    void damage(reply_frame& reply) RVK_REQUIRES(lock);
    bool note_request(std::span<const uint8_t> frame, uint64_t now_us, request_fields& fields) RVK_REQUIRES(lock);
    void carry_out(const request_fields& request, uint64_t now_us, std::vector<reply_frame>& out) RVK_REQUIRES(lock);
    bool act_on_write(const request_fields& request, uint8_t& status) RVK_REQUIRES(lock);
    bool act_on_read(const request_fields& request, std::span<uint8_t> data, uint8_t& status, size_t& len)
        RVK_REQUIRES(lock);
    bool answer_write(const request_fields& request, reply_frame& reply) RVK_REQUIRES(lock);
    bool answer_read(const request_fields& request, reply_frame& reply) RVK_REQUIRES(lock);
    std::optional<fault> read_fault() RVK_REQUIRES(lock);
    void note_mistake(mistake m) RVK_REQUIRES(lock);
    void misbehave(misbehaviour m) RVK_REQUIRES(lock);
    const sim_card* find(card_id card) const RVK_REQUIRES(lock);
    void spoil(reply_frame& reply) RVK_REQUIRES(lock);
    void send_strangers(uint64_t now_us, std::vector<reply_frame>& out) RVK_REQUIRES(lock);
    void deliver(const reply_frame& reply, uint64_t now_us, std::vector<reply_frame>& out) RVK_REQUIRES(lock);
    void hand_out(std::span<const uint8_t> frame, uint64_t now_us, std::vector<reply_frame>& out) RVK_REQUIRES(lock);
    void release_due(uint64_t now_us, std::vector<reply_frame>& out) RVK_REQUIRES(lock);
    template <typename Predicate>
    void release(uint64_t now_us, std::vector<reply_frame>& out, Predicate chosen) RVK_REQUIRES(lock);
    bool happens(fault kind) RVK_REQUIRES(lock);

    mutable mutex lock;
    fault_dice dice RVK_GUARDED_BY(lock);
    farm_counts counted RVK_GUARDED_BY(lock);
    register_script script RVK_GUARDED_BY(lock);
    std::map<card_id, sim_card> all RVK_GUARDED_BY(lock);
    card_memory block_memory RVK_GUARDED_BY(lock);
    playback_log played RVK_GUARDED_BY(lock);
    std::vector<held_reply> held RVK_GUARDED_BY(lock);
    std::vector<recorded_request> recorded RVK_GUARDED_BY(lock);
    size_t record_max RVK_GUARDED_BY(lock) = 0;
    uint64_t record_overflow RVK_GUARDED_BY(lock) = 0;
    frame_trail trail RVK_GUARDED_BY(lock);
};

} // namespace rvk
