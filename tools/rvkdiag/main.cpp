// rvkdiag: works on a card link directly, for people at the bench.
#include "base/fd.h"
#include "rvkdiag/command_line.h"

#include <fcntl.h>

// A link's socket with a standard stream's number would send what is printed to the cards.
int main(int argc, char** argv)
{
    rvk::prepare_descriptors(O_RDONLY);
    return rvk::diag::run_command_line(argc, argv);
}
