// The cards at the far end of one link: a request frame in, reply frames out. No socket, no clock, no thread.
//
// Keeps one card per (model, slot); every such pair is a card that is there. Checks each frame as a card would, counts
// violations by name, and does wrong what the record of injected faults asks for. Time is a number of microseconds that
// the caller brings and that never goes back. `card_link` feeds it from a socket; tests with simulated time and the
// fuzzer call it themselves. Any thread may call anything: one lock, innermost.
#pragma once

#include "base/mutex.h"
#include "cardsim/card.h"
#include "cardsim/faults.h"
#include "cardsim/records.h"

#include <map>
#include <optional>
#include <string>

namespace rvk {

struct card_id {
    uint16_t model = 0;
    uint8_t slot = 0;
    auto operator<=>(const card_id&) const = default;
};

struct farm_counts {
    uint64_t received = 0;                                         // frames of any kind
    uint64_t reads = 0, plain_writes = 0, acknowledged_writes = 0; // good requests, those that a fault lost included
    uint64_t bus_reads = 0, bus_writes = 0;                        // good packets of the older block protocol, likewise
    uint64_t bytes_written = 0;                                    // into the cards' memories
    uint64_t replies = 0; // frames handed out, duplicates, foreign frames and runts included
    std::array<uint64_t, violation_count> violations{};
    std::array<uint64_t, fault_count> injected{};

    void note(violation v) { ++violations[static_cast<size_t>(v)]; }
    [[nodiscard]] uint64_t refused() const;       // requests with a violation, tolerated ones included
    [[nodiscard]] std::string refusals() const;   // "wrong_checksum 2, picture_data_missing 1", or "none"
    [[nodiscard]] std::string injections() const; // "wrong-ack 2, refused-piece 1", or "none"
};

// What a link's cards hold, and what was seen of them.
struct farm_content {
    std::map<card_id, sim_card> cards;  // a card comes to be with its first write
    card_memory bus_memory{UINT32_MAX}; // of the older block protocol, whose packets name no card
    playback_log playback;
    frame_trail trail; // with the times that request() and due() were given
    farm_counts counts;
};

struct late_reply {
    uint64_t due_us;
    bool behind_next; // goes out behind the next reply, at the latest when due
    reply_frame bytes;
};

struct farm_state : farm_content {
    fault_injector injector{};
    std::vector<late_reply> late{};

    bool happens(fault kind); // takes one chance of it, and counts
};

class card_farm {
public:
    explicit card_farm(const card_faults& faults = {}) { set_faults(faults); }

    // Takes one frame received at now_us, of any length, and appends to `out` what goes back now, in order: replies
    // that became due meanwhile first. What is appended belongs to the caller.
    void request(std::span<const uint8_t> frame, uint64_t now_us, std::vector<reply_frame>& out) RVK_EXCLUDES(lock);

    // Appends the held-back replies that are due at now_us.
    void due(uint64_t now_us, std::vector<reply_frame>& out) RVK_EXCLUDES(lock);
    // When the next held-back reply is due; nothing when none is held.
    [[nodiscard]] std::optional<uint64_t> next_due_us() RVK_EXCLUDES(lock);

    // From the next frame on. Starts the record's chances and counts over; replies already held back stay so.
    void set_faults(const card_faults& faults) RVK_EXCLUDES(lock)
    {
        scoped_lock hold(lock);
        state.injector = {faults};
    }

    // Calls use(all that the cards hold), or use(one card), under the lock, for presetting and for comparing. Result:
    // what it returns.
    template <typename Use>
    auto with(Use use) RVK_EXCLUDES(lock)
    {
        scoped_lock hold(lock);
        return use(static_cast<farm_content&>(state));
    }
    template <typename Use>
    auto with(card_id card, Use use) RVK_EXCLUDES(lock)
    {
        return with([&](farm_content& c) { return use(c.cards[card]); });
    }
    farm_counts counts()
    {
        return with([](farm_content& c) { return c.counts; });
    }

private:
    mutex lock;
    farm_state state RVK_GUARDED_BY(lock);
};

} // namespace rvk
