// What cards hold, written where a person or a script can look at it.
#pragma once

#include "cardsim/cards.h"

namespace rvk {

// Makes a folder where there is none; throws a failure of wrong usage when it cannot be made or written.
void prepare_folder(const std::string& folder);

// Writes below the folder, which is prepared; replaces what is there. Every name begins with BASE = LINK-modelM-slotS:
//   BASE.txt            every stretch of register addresses that was written: address and up to 16 bytes a line,
//                       hexadecimal, in memory order; behind them, a line each, the pictures and firmware images
//   BASE-ADDRESS.bin    a stretch of more than 64 KiB, which the text names
//   BASE-bufferN.bmp    a picture that is whole, 32 bits a pixel, as the daemon's read-back writes it
//   BASE-bufferN-incomplete.bmp   what there is of one that is not
//   BASE-memoryM-ADDRESS.bin     a stretch of memory M that the picture loader wrote, at this address of its own
//   BASE-firmwareN.bin  a firmware image that was acknowledged to its last byte, without its head; N counts from 1
// and, for the older block protocol, LINK-bus.txt and LINK-bus-ADDRESS.bin, in the manner of the registers.
// Throws a failure. The farm answers meanwhile: its lock is held for no longer than it takes to copy what one file
// holds.
void save_state(card_farm& farm, const std::string& folder, const std::string& link);

// What came, what was refused and what was done wrong on purpose: a few lines for a person, each beginning with LINK.
[[nodiscard]] std::string summary(card_farm& farm, const std::string& link);

} // namespace rvk
