// See the header. The table is all there is to say about a kind of failure; its exit statuses are promised to scripts.
#include "rvkctl/outcome.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace rvk::ctl {
namespace {

enum exit_status { exit_done = 0, exit_no = 1, exit_usage = 2, exit_no_answer = 3 };

struct problem_row {
    problem what;
    exit_status status;
    const char* name; // for scripts, in the JSON object
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
    {problem::identity_taken, exit_no_answer, "identity_taken"},
    {problem::endpoint_error, exit_no_answer, "endpoint_error"},
    {problem::refused, exit_no, "refused"},
    {problem::short_answer, exit_no, "short_answer"},
};

const problem_row& row_of(problem what)
{
    for (const problem_row& row : problems) {
        if (row.what == what) { return row; }
    }
    return problems[0];
}

const char* status_meaning(exit_status status)
{
    switch (status) {
    case exit_done: return "done";
    case exit_no: return "the daemon or the card said no";
    case exit_usage: return "wrong usage";
    case exit_no_answer: return "no answer";
    }
    return "";
}

std::string object_text(const outcome& run, const problem_row& row)
{
    nlohmann::ordered_json object;
    object["format_version"] = 1;
    object["command"] = run.command.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(run.command);
    object["exit_status"] = static_cast<int>(row.status);
    object["exit_status_meaning"] = status_meaning(row.status);
    if (row.what != problem::none) { object["error"] = {{"kind", row.name}, {"text", run.failed.text}}; }
    object.update(run.facts);
    // A file's name may be any bytes.
    return object.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

bool write_out(const std::string& text)
{
    return fwrite(text.data(), 1, text.size(), stdout) == text.size() && fflush(stdout) == 0;
}

} // namespace

int present(const outcome& run, bool json)
{
    const problem_row& row = row_of(run.failed.what);
    const bool written = write_out(json ? object_text(run, row) : run.answer);
    if (row.what != problem::none) { fprintf(stderr, "rvkctl: %s\n", run.failed.text.c_str()); }
    if (!written) {
        fprintf(stderr, "rvkctl: the answer could not be written to standard output: %s\n", strerror(errno));
        return row.status == exit_done ? exit_usage : row.status;
    }
    return row.status;
}

std::string_view result_meaning(int32_t result)
{
    switch (result) {
    case 0: return "success";
    case -1: return "failure";
    default: return "a result this program does not know";
    }
}

} // namespace rvk::ctl
