// The one place that runs a shell command line. The child is an ordinary process again: what the daemon's threads need
// (real-time priority, a processor of their own, blocked signals, open links) must not leak into a tool that it runs.
// Used by my_system and my_popen. Any thread.
#pragma once

#include <sys/types.h>

namespace rvk::local {

// Starts `/bin/sh -c line` with normal scheduling, all processors, default signals, an empty mask, umask 0077 and no
// descriptor but 0 to 2 and what is not close-on-exec: that is meant for it. Touches no signal disposition of this
// process.
// output    becomes the child's standard output; -1 leaves it this process's own
// Result    the child, to be waited for with wait_for_shell; -1 with errno set
[[nodiscard]] pid_t start_shell(const char* line, int output);

// Waits until the child has ended. Result: its wait status, -1 with errno set when it cannot be had.
int wait_for_shell(pid_t child);

} // namespace rvk::local
