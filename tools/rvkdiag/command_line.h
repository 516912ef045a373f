// The command line of the bench tool: what it may say, what it means, and the help that says so.
#pragma once

namespace rvk::diag {

// The whole program: understands and runs a command line, prints its answer or its failure. Once per process: links
// that were opened, and their threads, stay to its end. Result: the exit status.
int run_command_line(int argc, char** argv);

} // namespace rvk::diag
