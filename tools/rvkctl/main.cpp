// rvkctl: commands for a running daemon, for people and scripts.
#include "rvkctl/command_line.h"

int main(int argc, char** argv) { return rvk::ctl::run_command_line(argc, argv); }
