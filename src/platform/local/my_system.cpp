// Runs a shell command line and waits for it, without the signal dispositions that system() changes: this process has
// many threads, and what one of them ignores for a while all of them ignore.
#include "platform/local/shell.h"
#include "platform/platform.h"

#include <unistd.h>

int my_system(const char* line)
{
    if (line == nullptr) { return access("/bin/sh", X_OK) == 0; } // as system() answers it: is there a shell?
    const pid_t child = rvk::local::start_shell(line, -1);
    return child < 0 ? -1 : rvk::local::wait_for_shell(child);
}
