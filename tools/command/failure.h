// Why a command did not do what it was told to, and the exit status that follows from it. Whatever cannot go on throws
// one; the program's main presents it. The statuses are the same in every tool and are promised to scripts.
#pragma once

#include <functional>
#include <string>

namespace rvk::tool {

// Their names are promised to scripts too; the order tells the status.
enum class problem {
    none,
    wrong_usage,
    no_directory, // from here on: no answer
    no_socket,
    nobody_listening,
    no_permission,
    queue_full,
    no_answer,
    no_status,  // the daemon left no figures
    old_status, // or they say nothing of now
    identity_taken,
    endpoint_error, // anything else that the messaging service said
    interrupted,    // by a signal, while waiting
    refused,        // from here on: the daemon or the card said no, or the machine
    short_answer,   // the card sent less than was asked for
    differs,        // what was read back is not what was written
    io_error,       // a file or standard output could not be written
    no_memory
};

enum exit_status { exit_done = 0, exit_no = 1, exit_usage = 2, exit_no_answer = 3 };

// The text is one line for a person: what was wrong, with the value, and what to do.
struct failure {
    problem what;
    std::string text;
};

// Throws one, with a text as printf makes it.
[[noreturn]] void fail(problem what, const char* text, ...) __attribute__((format(printf, 2, 3)));

[[nodiscard]] exit_status status_of(problem what);
[[nodiscard]] std::string name_of(problem what); // as in the enumeration

// What main() of every tool does: runs it, and says in a line what nobody in it has said. Result: the exit status.
int run_tool(const char* name, const std::function<int()>& body) noexcept;

// Puts the whole text on standard output; fails with io_error. Result: exit_done.
exit_status write_out(const std::string& text);

} // namespace rvk::tool
