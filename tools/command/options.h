// Options of a command line by CLI11, whose numbers are decimal or 0x…, never octal, and whose refusals name the value.
#pragma once

#include "command/failure.h"
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

// Parses. Result: what --help or --version asked for in place of a run. Throws a failure of wrong usage.
inline std::string parse(CLI::App& app, int argc, const char* const* argv)
{
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& asked) {
        std::ostringstream text;
        static_cast<void>(app.exit(asked, text, text));
        return text.str();
    } catch (const CLI::ParseError& error) {
        throw failure{problem::wrong_usage, std::string(error.what()) + "; see " + app.get_name() + " --help"};
    }
    return {};
}

// What programs with commands have in common: a version, and words that refuse_extras() judges.
inline void set_up(CLI::App& app, const char* footer)
{
    app.footer(footer);
    app.set_version_flag("--version", app.get_name() + " " RVK_VERSION);
    app.require_subcommand(0, 1);
    app.allow_extras();
    app.fallthrough();
}

// Refuses what stands on a command line beside a command and its options, and one without a command; parsing allows it.
// commands  names of all, for the text
inline void refuse_extras(const CLI::App& app, const char* commands, bool chosen)
{
    const std::string see = "; see " + app.get_name() + " --help";
    const auto refuse = [](const std::string& text) { throw failure{problem::wrong_usage, text}; };
    const auto words = app.remaining(true);
    const auto taken = app.get_subcommands();
    if (!words.empty() && taken.empty() && words[0][0] != '-') {
        refuse("\"" + words[0] + "\" is no command; there are " + commands);
    }
    if (!words.empty()) { refuse("\"" + words[0] + "\" was not expected" + see); }
    if (!chosen && !taken.empty()) { // a command that has commands of its own
        std::string own;
        for (const CLI::App* const command : taken[0]->get_subcommands([](const CLI::App*) { return true; })) {
            own += (own.empty() ? "" : " or ") + command->get_name();
        }
        refuse(taken[0]->get_name() + ": give " + own + see);
    }
    if (!chosen) { refuse(std::string("no command given: one of ") + commands + see); }
}

// All of a program without subcommands: parses its command line, then works. Result: the exit status. Throws failures.
inline int run_app(CLI::App& app, int argc, const char* const* argv, const std::function<void()>& run)
{
    const std::string asked = parse(app, argc, argv);
    if (!asked.empty()) { return write_out(asked) ? exit_done : exit_no; }
    run();
    return exit_done;
}

} // namespace rvk::tool
