// The controlling terminal as standard output, for whoever debugs on the board. Nothing in the daemon calls it.
#pragma once

namespace rvk {

// Points standard output at the terminal that the command "tty" names, if there is one.
void ptoc();

} // namespace rvk
