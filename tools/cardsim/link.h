// The socket half of the simulated cards: one packet socket and one thread per link, with the cards of a `card_farm`
// behind it. Keeps up with a sender that knows no flow control: a receive buffer of 64 MiB and batched system calls.
// Opens the interface it is given and nothing else; whoever starts it sees to it that this is not a machine's real one.
#pragma once

#include "base/fd.h"
#include "base/mutex.h"
#include "cardsim/cards.h"

#include <atomic>
#include <thread>

struct mmsghdr; // the C library's

namespace rvk {

struct link_options {
    std::string interface = "card0";
    int processor = -1; // as `pin_to_processor` takes it; -1: not pinned
    int priority = 0;   // SCHED_FIFO 1 to 99; 0: an ordinary thread
    int receive_buffer_bytes = 64 << 20;
};

class card_link {
public:
    // The farm outlives the link and may be shared with any thread; two links never share one.
    explicit card_link(card_farm& cards) : farm(cards) {}
    ~card_link() { stop(); }
    card_link(const card_link&) = delete;
    card_link& operator=(const card_link&) = delete;

    // Opens the interface and starts the thread; frames are answered from the return on. Once at a time.
    // Result: empty, or one line for a person that says what was wrong and what to do.
    [[nodiscard]] std::string start(const link_options& options = {});

    // Ends the thread (within 100 ms) and closes the socket; frames still waiting in it are lost.
    void stop();

    // Frames that the kernel dropped because the receive buffer was full, and replies that could not be sent; since the
    // first start. dropped() is called by the thread that starts and stops.
    [[nodiscard]] uint64_t dropped();
    [[nodiscard]] uint64_t unsent() const { return send_failures.load(); }

private:
    void serve();
    int receive(mmsghdr* batch);
    void send_all(std::vector<reply_frame>& replies);

    card_farm& farm;
    unique_fd socket_fd;
    std::thread thread;
    semaphore ready{0};
    std::string failure; // the thread's, before it posts `ready`
    std::atomic<bool> stopping = false;
    uint64_t kernel_drops = 0;
    std::atomic<uint64_t> send_failures = 0;
};

} // namespace rvk
