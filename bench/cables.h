// The far end of the cable, and the near end as bare system calls use it: no pool, no queue, no thread, ready-made
// frames.
#pragma once

#include "cardsim/cards.h"
#include "cardsim/link.h"

#include <cstdint>
#include <functional>
#include <linux/if_packet.h>
#include <span>
#include <vector>

namespace rvk::bench {

// The card that every row talks to.
inline constexpr uint16_t model = 0;
inline constexpr uint8_t slot = 1;
inline constexpr uint32_t addr = 0x2000;

using frame_bytes = std::vector<uint8_t>;

// The frames that arrive at these cards while `work` runs, the first `max` at most.
[[nodiscard]] std::vector<kept_frame> frames_to_cards(card_farm& farm, size_t max, const std::function<void()>& work);

// Cards on card0, with something to read at `addr`, answering at this priority.
class simulated_cards {
public:
    explicit simulated_cards(int priority);
    ~simulated_cards();
    simulated_cards(const simulated_cards&) = delete;
    simulated_cards& operator=(const simulated_cards&) = delete;

    // A daemon's start, since the cards are there: its first picture plays; its last one is complete.
    [[nodiscard]] bool demo_plays() const;
    [[nodiscard]] bool demo_is_over() const;

    // The frames that arrive while `work` runs, `max` at most: a bare loop then sends the very same.
    [[nodiscard]] std::vector<frame_bytes> arriving(size_t max, const std::function<void()>& work);
    [[nodiscard]] std::vector<uint8_t> picture(uint8_t buffer);

private:
    card_farm farm;
    card_link link{farm};
};

// A request as the daemon would pack it. A read carries no data and asks for data_bytes.
[[nodiscard]] frame_bytes ready_made(uint8_t code, uint32_t at, uint16_t seq, size_t data_bytes);

// A packet socket that belongs to somebody else, who is stopped while it is used here.
class bare_link {
public:
    explicit bare_link(int socket);
    void send(const frame_bytes& frame) const;
    void receive() const;                          // one frame
    void exchange(const frame_bytes& frame) const; // waits for its answer where it has one
    void drain() const;                            // what is left from others
    void check_replies_come() const;               // once, before anything is timed

    void make_room_for_replies() const; // for 1,000 and more that nobody takes yet

private:
    int fd;
    sockaddr_ll to{};
};

} // namespace rvk::bench
