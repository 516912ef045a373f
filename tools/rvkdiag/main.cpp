// rvkdiag: works on a card link directly, for people at the bench.
#include "rvkdiag/command_line.h"

int main(int argc, char** argv) { return rvk::diag::run_command_line(argc, argv); }
