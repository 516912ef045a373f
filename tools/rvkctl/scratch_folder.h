// A folder for the two files of a read-back that nobody is to keep: made below TMPDIR, and gone with its object, also
// when a signal ends the program.
#pragma once

#include "rvkctl/interrupt.h"

#include <string>

namespace rvk::ctl {

class scratch_folder {
public:
    // Throws a failure of wrong usage when it cannot be made, or has too long a name for the daemon.
    scratch_folder();
    ~scratch_folder();
    scratch_folder(const scratch_folder&) = delete;
    scratch_folder& operator=(const scratch_folder&) = delete;

    [[nodiscard]] std::string file() const { return path + "/back"; } // what is read back; its image beside it

private:
    interrupt_guard guard; // ends after the folder is gone
    std::string path;
};

} // namespace rvk::ctl
