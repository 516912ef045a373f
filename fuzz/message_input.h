// What the targets share that give the daemon messages, and have it send to simulated cards.
#pragma once

#include "sim/world.h"

#include <cstdint>
#include <span>

void require(bool holds); // ends the run

// Cards with the fault of this number half of the time; 0: none.
[[nodiscard]] rvk::card_faults faults_by_number(uint8_t choice);

void refuse_every(rvk::world& w, unsigned n); // the socket refuses every n-th frame; 0: none

// Gives one message of at most message_bytes_max bytes to the daemon, made a data message or as it is. What is answered
// must be whole and the requester's.
void take_message(rvk::world& w, bool make_data, std::span<const uint8_t> bytes);

// No frame was one that no controller should send, whatever it was asked to do: a register used wrongly is not among
// them.
void require_good_frames(rvk::world& w);
