// The commands as they stand on the command line: what each takes, and how that is understood.
#pragma once

#include "rvkctl/commands.h"

#include <functional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace rvk::ctl {

// What the options hold before they are understood.
struct raw_text {
    std::string board, module, timeout;
    std::string slot, model = "0", addr, len, file, size, where, type, repeat, interval;
    std::vector<std::string> bytes;
    bool no_ack = false, verify = false, all = false, watch = false;
};

using command_run = std::function<void(const settings&, outcome&)>;

// The command that stands on the command line; none when it names none.
struct chosen {
    std::string command;                     // as given
    std::function<command_run()> understand; // throws a failure of wrong usage
};

// Adds every command to a parser; parsing fills `raw` and `choice`, which must outlive it.
void add_subcommands(CLI::App& app, raw_text& raw, chosen& choice);

} // namespace rvk::ctl
