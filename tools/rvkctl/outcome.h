// What came of a run, and the one place that turns it into text, JSON and an exit status. Commands collect facts and
// throw a failure; main presents the one or the other.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace rvk::ctl {

enum class problem {
    none,
    wrong_usage,
    no_directory,
    no_socket,
    nobody_listening,
    no_permission,
    queue_full,
    no_answer,
    identity_taken,
    endpoint_error, // anything else that the messaging service said
    refused,        // the daemon or the card said no
    short_answer    // the card sent less than was asked for
};

// Thrown by whatever cannot go on; the text is one line for a person: what was wrong, with the value, and what to do.
struct failure {
    problem what;
    std::string text;
};

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
