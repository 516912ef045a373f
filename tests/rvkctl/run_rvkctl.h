// Runs the client in this process and keeps what it said.
#pragma once

#include <string>
#include <vector>

namespace rvk {

struct said {
    int status;
    std::string out, err;
};

said run_rvkctl(std::vector<std::string> arguments);

// The same, with its output where the test's own goes. Result: the exit status.
int run_uncaptured(std::vector<std::string> arguments);

} // namespace rvk
