#include "main/console.h"

#include "base/fd.h"
#include "main/log.h"
#include "platform/platform.h"

#include <cstring>
#include <fcntl.h>

namespace rvk {

void ptoc()
{
    char path[32] = "";
    FILE* output = my_popen("tty", "r");
    if (output == nullptr) { return; }
    const bool read = fgets(path, sizeof path, output) != nullptr;
    fclose(output);
    if (!read || path[0] == '\0') { return; }
    path[strlen(path) - 1] = '\0'; // the line end
    if (access(path, F_OK) != 0) { return; }
    const unique_fd terminal{open(path, O_RDWR | O_NOCTTY | O_CLOEXEC)};
    if (dup2(terminal.get(), STDOUT_FILENO) < 0) { log_print(LOG_HERE, "err in dup2\n"); }
}

} // namespace rvk
