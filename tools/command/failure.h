// Why a command did not do what it was told to, and the exit status that follows from it. Whatever cannot go on throws
// one; the program's main presents it. The statuses are the same in every tool and are promised to scripts.
#pragma once

#include <cstdio>
#include <exception>
#include <new>
#include <string>

namespace rvk::tool {

enum class problem {
    none,
    wrong_usage,
    no_directory,
    no_socket,
    nobody_listening,
    no_permission,
    queue_full,
    no_answer,
    no_status,  // the daemon left no figures
    old_status, // or they say nothing of now
    identity_taken,
    endpoint_error, // anything else that the messaging service said
    refused,        // the daemon or the card said no
    short_answer,   // the card sent less than was asked for
    differs,        // what was read back is not what was written
    io_error,       // a file or standard output could not be written
    no_memory,
    interrupted // by a signal, while waiting
};

enum exit_status { exit_done = 0, exit_no = 1, exit_usage = 2, exit_no_answer = 3 };

// The text is one line for a person: what was wrong, with the value, and what to do.
struct failure {
    problem what;
    std::string text;
};

[[nodiscard]] exit_status status_of(problem what);
[[nodiscard]] const char* name_of(problem what); // for scripts, as in the enumeration

// What main() of every tool does: runs it, and says in a line what nobody in it has said. Result: the exit status.
template <typename Body>
int run_tool(const char* name, Body body) noexcept
{
    try {
        return body();
    } catch (const failure& failed) {
        fprintf(stderr, "%s: %s\n", name, failed.text.c_str());
        return status_of(failed.what);
    } catch (const std::bad_alloc&) {
        fprintf(stderr, "%s: there is not enough memory\n", name);
    } catch (const std::exception& error) {
        fprintf(stderr, "%s: %s\n", name, error.what());
    } catch (...) {
        fprintf(stderr, "%s: ended by an unknown exception\n", name);
    }
    return exit_no;
}

// Puts the whole text on standard output. Result: false (errno tells why) when it could not be written.
[[nodiscard]] bool write_out(const std::string& text);

} // namespace rvk::tool
