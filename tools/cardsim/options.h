// The command line of the program: what it was asked for, or why it cannot be done.
#pragma once

#include "cardsim/behaviour.h"
#include "cardsim/faults.h"
#include "cardsim/loader_port.h"

#include <optional>
#include <string>
#include <vector>

namespace rvk {

struct cardsim_options {
    std::vector<std::string> links{"card0"};
    std::string state_folder; // empty: nothing is written
    std::vector<loaded_picture> loaded;
    std::string pcap_folder; // empty: no frames are kept
    size_t pcap_frames = 1000;
    int processor = -1;
    int priority = 0;
    card_faults faults;
    card_behaviour behaviour;
};

struct parsed_options {
    std::optional<cardsim_options> given; // empty: the program ends here, with `status`
    int status = 0;                       // 0 after --help, 2 after wrong usage
    std::string text;                     // help for standard output, or one line for standard error
};
[[nodiscard]] parsed_options parse_options(int argc, const char* const* argv);

// "3": the next three; "0.05" or "1.0": this part of all. Result: empty when it is neither.
[[nodiscard]] std::optional<occurrence> parse_occurrence(const std::string& text);

// "1:0x2000:1920x1080": memory, address, size. Result: empty when it is something else.
[[nodiscard]] std::optional<loaded_picture> parse_loaded(const std::string& text);

} // namespace rvk
