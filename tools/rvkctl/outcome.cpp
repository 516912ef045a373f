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
    const char* name; // for scripts, in the JSON object
    exit_status status;
};
constexpr problem_row problems[] = {
    {problem::none, "none", exit_done},
    {problem::wrong_usage, "wrong_usage", exit_usage},
    {problem::no_directory, "no_directory", exit_no_answer},
    {problem::no_socket, "no_socket", exit_no_answer},
    {problem::nobody_listening, "nobody_listening", exit_no_answer},
    {problem::no_permission, "no_permission", exit_no_answer},
    {problem::queue_full, "queue_full", exit_no_answer},
    {problem::no_answer, "no_answer", exit_no_answer},
    {problem::identity_taken, "identity_taken", exit_no_answer},
    {problem::endpoint_error, "endpoint_error", exit_no_answer},
    {problem::refused, "refused", exit_no},
    {problem::short_answer, "short_answer", exit_no},
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
