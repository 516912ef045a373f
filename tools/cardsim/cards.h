// The cards at the far end of one link: a request frame in, reply frames out. No socket, no clock, no thread.
//
// Keeps one memory per (model, slot); every such pair is a card that is there. Checks each frame as a card would,
// counts by name what no controller should send, and does wrong on purpose what its fault record asks for. Time is a
// number of microseconds that the caller brings and that never goes back. `card_link` feeds it from a socket; tests
// with simulated time and the fuzzer call it themselves. Any thread may call anything: one lock, innermost, nothing is
// called under it.
#pragma once

#include "base/mutex.h"
#include "cardsim/checks.h"
#include "cardsim/faults.h"
#include "cardsim/memory.h"
#include "cardsim/pcap.h"
#include "cardsim/replies.h"

#include <array>
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

struct farm_counts {
    uint64_t received = 0;                                         // frames of any kind
    uint64_t reads = 0, plain_writes = 0, acknowledged_writes = 0; // good requests, those that a fault lost included
    uint64_t bytes_written = 0;                                    // into the cards' memories
    uint64_t replies = 0;                           // frames handed out, duplicates, foreign frames and runts included
    std::array<uint64_t, verdict_count> verdicts{}; // frames by what the check said; use the functions below
    std::array<uint64_t, fault_count> injected{};

    [[nodiscard]] uint64_t of(verdict v) const { return verdicts[static_cast<size_t>(v)]; }
    [[nodiscard]] uint64_t of(fault f) const { return injected[static_cast<size_t>(f)]; }
    [[nodiscard]] uint64_t refused() const;     // the controller's frames that it should not have sent
    [[nodiscard]] std::string refusals() const; // "wrong_checksum 2, len_zero 1", or "none"
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
    [[nodiscard]] farm_counts counts() const RVK_EXCLUDES(lock);

    // The cards' memory, for presetting and for comparing. A card comes to be with its first write.
    void write(card_id card, uint32_t addr, std::span<const uint8_t> bytes) RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<uint8_t> read(card_id card, uint32_t addr, size_t len) const RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<card_id> cards() const RVK_EXCLUDES(lock);
    [[nodiscard]] std::vector<extent> written(card_id card) const RVK_EXCLUDES(lock);

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

    bool note_request(std::span<const uint8_t> frame, uint64_t now_us, request_fields& fields) RVK_REQUIRES(lock);
    void carry_out(const request_fields& request, uint64_t now_us, std::vector<reply_frame>& out) RVK_REQUIRES(lock);
    void store(const request_fields& request) RVK_REQUIRES(lock);
    void answer_write(const request_fields& request, reply_frame& reply) RVK_REQUIRES(lock);
    void answer_read(const request_fields& request, reply_frame& reply) RVK_REQUIRES(lock);
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
    std::map<card_id, card_memory> memories RVK_GUARDED_BY(lock);
    std::vector<held_reply> held RVK_GUARDED_BY(lock);
    std::vector<recorded_request> recorded RVK_GUARDED_BY(lock);
    size_t record_max RVK_GUARDED_BY(lock) = 0;
    uint64_t record_overflow RVK_GUARDED_BY(lock) = 0;
    frame_trail trail RVK_GUARDED_BY(lock);
};

} // namespace rvk
