// Options of a command line by CLI11, whose numbers are decimal or 0x…, never octal, and whose refusals name the value.
#pragma once

#include "command/values.h"

#include <CLI/CLI.hpp>
#include <functional>
#include <limits>
#include <optional>
#include <sstream>
#include <string>

namespace rvk::tool {

// An option, or an argument, whose text `take` understands; what it refuses it throws as a failure.
inline CLI::Option* add_value(CLI::App& app, const std::string& name, const std::string& about,
                              const std::function<void(const std::string&)>& take)
{
    return app.add_option_function<std::string>(name, take, about);
}

template <typename T>
struct number_type {
    using type = T;
};
template <typename T>
struct number_type<std::optional<T>> {
    using type = T;
};

// One that is a number from least to most.
template <typename T, typename N = typename number_type<T>::type>
CLI::Option* add_number(CLI::App& app, const std::string& name, T& value, const std::string& about, uint64_t least = 0,
                        uint64_t most = std::numeric_limits<N>::max())
{
    return add_value(app, name, about, [&value, name, least, most](const std::string& text) {
        value = static_cast<N>(number_in(name.c_str(), text, least, most));
    });
}

// What --help or --version asked for.
inline std::string text_of(const CLI::App& app, const CLI::Success& asked)
{
    std::ostringstream text;
    static_cast<void>(app.exit(asked, text, text));
    return text.str();
}

} // namespace rvk::tool
