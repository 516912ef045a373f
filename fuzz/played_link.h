// A card link without socket, thread or clock, for targets that send: one thread plays sender, link threads and cards.
//
// The program is linked so that the system calls of the link end here. A frame sent goes to simulated cards, whose
// replies wait in a queue; they are received whenever a sender waits for its answer, and with none left, time passes.
#pragma once

#include "cardsim/cards.h"

#include <cstdint>
#include <deque>
#include <span>

struct played_link {
    rvk::card_farm farm;
    std::deque<rvk::reply_frame> on_the_wire;
    uint64_t now_us = 0;
    uint64_t frames = 0;
    unsigned refuse_every = 0;                                  // the socket refuses every n-th frame; 0: none
    void (*on_frame)(std::span<const uint8_t> frame) = nullptr; // sees what is sent, refused frames too
};

extern played_link* played; // of the input that is being run

// Prepares the modules below the senders, and link 0, to be used without their threads.
void open_played_link();

// Cards with the fault of this number half of the time; 0: none.
void set_fault(played_link& link, uint8_t choice);

// Receives and lets time pass until nothing is on the way and every block is back.
void drain();

// Frames that no controller should send, whatever it was asked to do: a register used wrongly is not among them.
[[nodiscard]] uint64_t bad_frames(const rvk::farm_counts& counts);
