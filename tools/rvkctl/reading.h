// One read command and what it brings: for a read that is shown, one that is repeated, and one that checks a write.
#pragma once

#include "rvkctl/commands.h"

#include <cstdint>
#include <vector>

namespace rvk::ctl {

// Reads once and notes what came in `facts`. Result: the data, which may be less than was asked for. Throws a failure
// when the card gave none.
std::vector<uint8_t> read_card(session& talk, const read_options& what, nlohmann::ordered_json& facts);

// Throws a failure when the data is less than was asked for.
void check_length(const read_options& what, const std::vector<uint8_t>& data);

void note_request(const read_options& what, nlohmann::ordered_json& facts);

// Reads again and again, as `what.repeat` says, and prints a line for what came. Throws a failure at the end when a
// read failed.
void watch_card(session& talk, const read_options& what, bool json, outcome& run);

} // namespace rvk::ctl
