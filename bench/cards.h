// The far end of the cable, and the near end as bare system calls use it: no pool, no queue, no thread, ready-made
// frames.
#pragma once

#include "base/fd.h"
#include "base/mutex.h"
#include "cardsim/cards.h"
#include "cardsim/link.h"

#include <cstdint>
#include <functional>
#include <linux/if_packet.h>
#include <string>
#include <vector>

namespace rvk::bench {

// The card that every row talks to.
inline constexpr uint16_t model = 0;
inline constexpr uint8_t slot = 1;
inline constexpr uint32_t addr = 0x2000;

using frame_bytes = std::vector<uint8_t>;

// Cards on an end of a cable, with something to read at `addr`. At the row's end they have refused and lost nothing.
class simulated_cards {
public:
    explicit simulated_cards(int priority, const std::string& interface = "card0");
    ~simulated_cards();
    simulated_cards(const simulated_cards&) = delete;
    simulated_cards& operator=(const simulated_cards&) = delete;

    // The frames that arrive while `work` runs, `max` at most: a bare loop then sends the very same.
    [[nodiscard]] std::vector<frame_bytes> arriving(size_t max, const std::function<void()>& work);

    // Whether the demo's playback has come to this line.
    [[nodiscard]] bool has_played(const std::string& line);
    [[nodiscard]] std::vector<uint8_t> picture(uint8_t buffer);

    card_farm farm;

private:
    card_link link{farm};
};

// When the frames to one address of a card arrived, by the kernel's stamps.
class stamps {
public:
    explicit stamps(uint32_t of, const char* interface = "card0");
    [[nodiscard]] double ns_per_frame() const; // of those since the last call: the mean from one to the next

private:
    unique_fd fd;
};

// A request as the daemon would pack it. A read carries no data and asks for data_bytes.
[[nodiscard]] frame_bytes ready_made(uint8_t code, uint32_t at, uint16_t seq, size_t data_bytes);

// A packet socket that belongs to somebody else, who is stopped while it is used here: one more on the interface would
// get a copy of every frame.
class bare_link {
public:
    explicit bare_link(int socket);
    void receive_by_thread(); // from now on a thread at 90 takes the answers, as in rvkd, to the process's end
    void send(const frame_bytes& frame) const;
    void await_answer();
    void exchange(const frame_bytes& frame); // waits for its answer where it has one
    void drain() const;                      // what is left from others

private:
    void receive() const; // one frame

    int fd;
    sockaddr_ll to{};
    bool has_thread = false;
    semaphore answered{0};
};

} // namespace rvk::bench
