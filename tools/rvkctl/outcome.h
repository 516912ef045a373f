// What a person sees of a run: while rvkctl waits, that it lives, and a signal that ends it in order; at its end, what
// came of it, turned in one place into text, JSON and an exit status. Commands collect facts and throw a failure; main
// presents the one or the other.
#pragma once

#include "command/failure.h"
#include "command/values.h"

#include <chrono>
#include <cstdint>
#include <functional>
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

// From here on the first SIGINT, SIGTERM, SIGHUP or SIGPIPE only makes every wait for the daemon end in a failure;
// whoever made something clears it away as that passes. A second one ends the process at once.
void catch_signals();

// At the end of all: lets the signal that came, if one did, end the process as it always would have.
void end_by_signal();

// From now on a signal is an orderly end of the work: the process ends with its own status (but for SIGPIPE).
void accept_interrupt();

// Whether a signal came.
[[nodiscard]] bool interrupted();

// Pauses until then, or until a signal came, which it notices within a quarter of a second.
void pause_until(std::chrono::steady_clock::time_point end);

// To be called while waiting, as often as one likes: on a terminal, a line each second on standard error with the time
// that the run has taken, the first after one; say() wipes it.
// doing  says what stands behind the time, is asked for each line; may be none
void show_life(const std::function<std::string()>& doing);

} // namespace rvk::ctl
