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

// An option, or an argument (whose name has no dash), which is required. Result: it.
inline CLI::Option* named(CLI::Option* option, const std::string& name, const char* value)
{
    return name[0] == '-' ? option->type_name(value) : option->type_name("")->required();
}

// One whose text `take` understands; what it refuses it throws as a failure.
// value  what its value is called in the help
inline CLI::Option* add_value(CLI::App& app, const std::string& name, const char* value, const std::string& about,
                              const std::function<void(const std::string&)>& take)
{
    return named(app.add_option_function<std::string>(name, take, about), name, value);
}

inline CLI::Option* add_text(CLI::App& app, const std::string& name, const char* value, std::string& text,
                             const std::string& about)
{
    return named(app.add_option(name, text, about), name, value);
}

template <typename T>
T number_type(const T&);
template <typename T>
T number_type(const std::optional<T>&);

// A number from least to most; with base 16 a hexadecimal one.
template <typename T, typename N = decltype(number_type(std::declval<T>()))>
CLI::Option* add_number(CLI::App& app, const std::string& name, const char* value, T& number, const std::string& about,
                        uint64_t least = 0, uint64_t most = std::numeric_limits<N>::max(), int base = 10)
{
    return add_value(app, name, value, about, [&number, name, least, most, base](const std::string& text) {
        number = static_cast<N>(number_in(name.c_str(), text, least, most, base));
    });
}

// The command that a command line names, as it was given ("picture put"), and what it does.
struct chosen_command {
    std::string name;
    std::function<void()> run;
};

inline CLI::App& add_command(CLI::App& parent, const char* name, const char* about, const char* help,
                             chosen_command& chosen, const std::function<void()>& run)
{
    CLI::App& command = *parent.add_subcommand(name, about);
    command.footer(help);
    const std::string whole = parent.get_parent() == nullptr ? name : parent.get_name() + " " + name;
    command.callback([&chosen, whole, run] { chosen = {whole, run}; });
    return command;
}

// One that has commands of its own.
inline CLI::App& add_group(CLI::App& app, const char* name, const char* about)
{
    CLI::App& group = *app.add_subcommand(name, about);
    group.require_subcommand(0, 1);
    group.fallthrough();
    group.footer("");
    return group;
}

// What all programs have in common: a footer, a version, and words that refuse_extras() judges.
inline void set_up(CLI::App& app, const char* footer)
{
    app.footer(footer);
    app.set_version_flag("--version", app.get_name() + " " RVK_VERSION);
    app.require_subcommand(0, 1);
    app.allow_extras();
    app.fallthrough();
}

// "read, picture put, picture get"; none for a command that has none of its own.
inline std::string names_of_commands(const CLI::App& app, const char* between = ", ", const std::string& prefix = "")
{
    std::string names;
    for (const CLI::App* const command : app.get_subcommands([](const CLI::App*) { return true; })) {
        const std::string name = prefix + command->get_name(), own = names_of_commands(*command, between, name + " ");
        names += (names.empty() ? "" : between) + (own.empty() ? name : own);
    }
    return names;
}

// Refuses what stands on a command line beside a command and its options, and one without a command; parsing allows it.
inline void refuse_extras(const CLI::App& app)
{
    const std::string see = "; see " + app.get_name() + " --help", commands = names_of_commands(app);
    const auto refuse = [](const std::string& text) { fail(problem::wrong_usage, "%s", text.c_str()); };
    const auto words = app.remaining(true);
    const auto taken = app.get_subcommands();
    if (!words.empty() && !commands.empty() && taken.empty() && words[0][0] != '-') {
        refuse("\"" + words[0] + "\" is no command; there are " + commands);
    }
    if (!words.empty()) { refuse("\"" + words[0] + "\" was not expected" + see); }
    if (taken.empty() && !commands.empty()) { refuse("no command given: one of " + commands + see); }
    if (taken.empty() || !taken[0]->get_subcommands().empty()) { return; }
    const std::string own = names_of_commands(*taken[0], " or ");
    if (!own.empty()) { refuse(taken[0]->get_name() + ": give " + own + see); }
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
        fail(problem::wrong_usage, "%s; see %s --help", error.what(), app.get_name().c_str());
    }
    refuse_extras(app);
    return {};
}

// All of a program: parses its command line, then works. Result: the exit status. Throws failures.
inline int run_app(CLI::App& app, int argc, const char* const* argv, const std::function<void()>& run)
{
    const std::string asked = parse(app, argc, argv);
    if (asked.empty()) { run(); }
    return asked.empty() ? exit_done : write_out(asked);
}

} // namespace rvk::tool
