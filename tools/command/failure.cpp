#include "command/failure.h"

#include "command/values.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <new>

namespace rvk::tool {

void fail(problem what, const char* text, ...)
{
    va_list arguments;
    va_start(arguments, text);
    failure made{what, format_list(text, arguments)};
    va_end(arguments);
    throw made;
}

exit_status status_of(problem what)
{
    if (what <= problem::wrong_usage) { return what == problem::none ? exit_done : exit_usage; }
    return what < problem::refused ? exit_no_answer : exit_no;
}

std::string name_of(problem what)
{
    return std::string(enumerators<problem, static_cast<size_t>(problem::no_memory) + 1>[static_cast<size_t>(what)]);
}

int run_tool(const char* name, const std::function<int()>& body) noexcept
{
    try {
        return body();
    } catch (const failure& failed) {
        fflush(stdout);
        fprintf(stderr, "%s: %s\n", name, printable_lines(failed.text).c_str());
        return status_of(failed.what);
    } catch (const std::bad_alloc&) {
        fprintf(stderr, "%s: there is not enough memory\n", name);
    } catch (const std::exception& error) {
        fprintf(stderr, "%s: %s\n", name, error.what());
    }
    return exit_no;
}

exit_status write_out(const std::string& text)
{
    const bool written = fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
    if (written && ferror(stdout) == 0) { return exit_done; } // nor was one before, of what was printed otherwise
    fail(problem::io_error, "the answer could not be written to standard output: %s", strerror(errno));
}

} // namespace rvk::tool
