// What came of a run, and the one place that turns it into text, JSON and an exit status. Commands collect facts and
// throw a failure; main presents the one or the other.
#pragma once

#include "command/failure.h"
#include "command/values.h"

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>

namespace rvk::ctl {

using namespace tool; // failures and values are every tool's

// Everything that a run has to say.
struct outcome {
    std::string command; // as given; empty when not even that was understood
    nlohmann::ordered_json facts = nlohmann::ordered_json::object(); // the command's own members of the JSON object
    std::string answer{};                                            // for standard output without --json; whole lines
    failure failed{problem::none, {}};
    bool one_line = false; // the JSON object, in place of an indented one
    bool told = false;     // what belongs on standard output was said while it ran
};

// Puts the answer or, with json, one object on standard output, and a failure's line on standard error; control bytes
// that came from elsewhere are escaped. Throws a failure when standard output does not take it.
void say(const outcome& run, bool json);

// Says how a run ended. Result: the process's exit status.
int present(const outcome& run, bool json);

// The result of an answer, as a number and in words.
void note_result(int32_t result, nlohmann::ordered_json& facts);

} // namespace rvk::ctl
