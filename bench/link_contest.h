// Both sides of a row that talks to a card from inside the process.
//
// They use one and the same packet socket, opened before the worker is forked: a second one on the interface would be
// given a copy of every frame and burden both. The worker runs the link's real threads and is stopped while the bare
// loop has the socket.
#pragma once

#include "cables.h"
#include "harness.h"
#include "processes.h"

#include <cstddef>
#include <vector>

namespace rvk::bench {

class link_contest {
public:
    // measure  runs in the worker, at sender_priority, with the link's threads behind it; with 0 it does no work
    // card     the cards' priority
    link_contest(double (*measure)(size_t), int card);

    double as_ours(size_t argument) { return ours.measure(argument); }
    double as_bare(const measurement& loop); // finds the link's socket free and empty

    // What as_ours sends, `max` frames at most.
    [[nodiscard]] std::vector<frame_bytes> frames_of(size_t argument, size_t max);

    [[nodiscard]] const bare_link& link() const { return bare; }

private:
    worker ours;
    simulated_cards cards;
    bare_link bare;
};

} // namespace rvk::bench
