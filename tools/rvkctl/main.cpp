// rvkctl: commands for a running daemon, for people and scripts.
#include "rvkctl/command_line.h"

#include <cstdio>
#include <exception>

int main(int argc, char** argv)
{
    rvk::ctl::command_line line;
    rvk::ctl::outcome run;
    try {
        rvk::ctl::parse_command_line(argc, argv, line);
        if (!line.help.empty()) { return fputs(line.help.c_str(), stdout) < 0 || fflush(stdout) != 0 ? 2 : 0; }
        run.command = line.command;
        line.run(line.used, run);
    } catch (const rvk::ctl::failure& failed) {
        run.command = line.command;
        run.failed = failed;
    } catch (const std::exception& error) { // no memory
        run.command = line.command;
        run.failed = {rvk::ctl::problem::wrong_usage, error.what()};
    }
    return rvk::ctl::present(run, line.used.json);
}
