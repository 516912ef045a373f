#include "run_rvkctl.h"

#include "rvkctl/command_line.h"

#include <gtest/gtest.h>

namespace rvk {

int run_uncaptured(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "rvkctl");
    std::vector<char*> argv;
    for (std::string& argument : arguments) { argv.push_back(argument.data()); }
    argv.push_back(nullptr);
    return ctl::run_command_line(static_cast<int>(arguments.size()), argv.data());
}

said run_rvkctl(std::vector<std::string> arguments)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const int status = run_uncaptured(std::move(arguments));
    std::string out = testing::internal::GetCapturedStdout();
    return {status, std::move(out), testing::internal::GetCapturedStderr()};
}

} // namespace rvk
