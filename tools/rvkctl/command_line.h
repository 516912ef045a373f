// The command line: what it may say, what it means, and the help that says so.
#pragma once

#include "rvkctl/commands.h"

#include <functional>
#include <string>

namespace rvk::ctl {

// A command line that was understood.
struct command_line {
    settings used;
    std::string command; // as given
    std::string help;    // asked for: to be printed in the place of running anything
    std::function<void(const settings&, outcome&)> run;
};

// Fills `out` as far as it gets; throws a failure of wrong usage.
void parse_command_line(int argc, char** argv, command_line& out);

// The whole program: understands, runs and presents a command line. Result: the exit status.
int run_command_line(int argc, char** argv);

} // namespace rvk::ctl
