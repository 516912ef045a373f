// What came of a run, and the one place that turns it into text, JSON and an exit status. Commands collect facts and
// throw a failure; main presents the one or the other.
#pragma once

#include "command/failure.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace rvk::ctl {

using namespace tool; // failures and values are every tool's

// Everything that a run has to say.
struct outcome {
    std::string command; // as given; empty when not even that was understood
    nlohmann::ordered_json facts = nlohmann::ordered_json::object(); // the command's own members of the JSON object
    std::string answer;                                              // for standard output without --json; whole lines
    failure failed{problem::none, {}};
};

// Prints an outcome: the answer or, with json, one object on standard output; a failure's line on standard error.
// Result: the process's exit status.
int present(const outcome& run, bool json);

// A result field in words.
std::string_view result_meaning(int32_t result);

} // namespace rvk::ctl
