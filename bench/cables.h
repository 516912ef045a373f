// The far end of the cable, and the near end as bare system calls use it: no pool, no queue, no thread, ready-made
// frames.
#pragma once

#include "cardsim/cards.h"
#include "cardsim/link.h"

#include <cstdint>
#include <linux/if_packet.h>
#include <span>
#include <vector>

namespace rvk::bench {

// The card that every row talks to.
inline constexpr uint16_t model = 0;
inline constexpr uint8_t slot = 1;
inline constexpr uint32_t addr = 0x2000;

// Cards on card0, with something to read at `addr`, answering at this priority.
class simulated_cards {
public:
    explicit simulated_cards(int priority);
    ~simulated_cards();
    simulated_cards(const simulated_cards&) = delete;
    simulated_cards& operator=(const simulated_cards&) = delete;

private:
    card_farm farm;
    card_link link{farm};
};

using frame_bytes = std::vector<uint8_t>;

// A request as the daemon would pack it. A read carries no data and asks for data_bytes.
[[nodiscard]] frame_bytes ready_made(uint8_t code, uint32_t at, uint16_t seq, size_t data_bytes);

// A packet socket that belongs to somebody else, who is stopped while it is used here.
class bare_link {
public:
    explicit bare_link(int socket);
    void send(const frame_bytes& frame) const;
    void receive() const;            // one frame
    void drain() const;              // what is left from others
    void check_replies_come() const; // once, before anything is timed

    void make_room_for_replies() const; // for 1,000 and more that nobody takes yet

private:
    int fd;
    sockaddr_ll to{};
};

} // namespace rvk::bench
