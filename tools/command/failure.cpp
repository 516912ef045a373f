// The table is all there is to say about a kind of failure.
#include "command/failure.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace rvk::tool {
namespace {

struct problem_row {
    problem what; // in the enumeration's order
    exit_status status;
    const char* name;
};
constexpr problem_row problems[] = {
    {problem::none, exit_done, "none"},
    {problem::wrong_usage, exit_usage, "wrong_usage"},
    {problem::no_directory, exit_no_answer, "no_directory"},
    {problem::no_socket, exit_no_answer, "no_socket"},
    {problem::nobody_listening, exit_no_answer, "nobody_listening"},
    {problem::no_permission, exit_no_answer, "no_permission"},
    {problem::queue_full, exit_no_answer, "queue_full"},
    {problem::no_answer, exit_no_answer, "no_answer"},
    {problem::no_status, exit_no_answer, "no_status"},
    {problem::old_status, exit_no_answer, "old_status"},
    {problem::identity_taken, exit_no_answer, "identity_taken"},
    {problem::endpoint_error, exit_no_answer, "endpoint_error"},
    {problem::refused, exit_no, "refused"},
    {problem::short_answer, exit_no, "short_answer"},
    {problem::differs, exit_no, "differs"},
    {problem::io_error, exit_no, "io_error"},
    {problem::no_memory, exit_no, "no_memory"},
    {problem::interrupted, exit_no_answer, "interrupted"},
};

const problem_row& row_of(problem what) { return problems[static_cast<size_t>(what)]; }
static_assert(std::size(problems) == static_cast<size_t>(problem::interrupted) + 1);
static_assert(std::ranges::is_sorted(problems, {}, &problem_row::what));

} // namespace

exit_status status_of(problem what) { return row_of(what).status; }

const char* name_of(problem what) { return row_of(what).name; }

bool write_out(const std::string& text)
{
    const bool written = fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
    return written && ferror(stdout) == 0; // nor was one before, of what was printed otherwise
}

} // namespace rvk::tool
