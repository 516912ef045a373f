// What cards hold, written where a person or a script can look at it.
#pragma once

#include "cardsim/cards.h"

#include <string>

namespace rvk {

// Writes one text file per card, FOLDER/LINK-modelM-slotS.txt, with every stretch of addresses that was written:
// address and up to 16 bytes a line, hexadecimal, in memory order. A stretch of more than 64 KiB goes into a file of
// its own, FOLDER/LINK-modelM-slotS-ADDRESS.bin, which the text names. Makes the folder; replaces what is there.
// Result: empty, or one line that says what was wrong.
[[nodiscard]] std::string save_state(const card_farm& farm, const std::string& folder, const std::string& link);

// What came, what was refused and what was done wrong on purpose: a few lines for a person.
[[nodiscard]] std::string summary(const farm_counts& counts, const std::string& link);

} // namespace rvk
