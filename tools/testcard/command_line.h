// The command line of the program: which picture it was asked for, or why it cannot be made.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace rvk {

enum class file_format { raw, bmp, bmp24, png };

struct wanted_card {
    uint32_t number = 0;
    uint32_t hor = 0, ver = 0;
    std::string path;
    file_format format = file_format::raw;
};

struct parsed_command {
    std::optional<wanted_card> card; // empty: the program ends here, with `status`
    int status = 0;                  // 0 after --help, 2 after wrong usage
    std::string text;                // help for standard output, or one line for standard error
};
[[nodiscard]] parsed_command parse_command(int argc, const char* const* argv);

} // namespace rvk
