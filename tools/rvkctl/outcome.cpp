#include "rvkctl/outcome.h"

#include "rvkctl/waiting.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace rvk::ctl {
namespace {

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

std::string object_text(const outcome& run, exit_status status)
{
    nlohmann::ordered_json object;
    object["format_version"] = 1;
    object["command"] = run.command.empty() ? nlohmann::ordered_json() : nlohmann::ordered_json(run.command);
    object["exit_status"] = static_cast<int>(status);
    object["exit_status_meaning"] = status_meaning(status);
    if (run.failed.what != problem::none) {
        object["error"] = {{"kind", name_of(run.failed.what)}, {"text", run.failed.text}};
    }
    object.update(run.facts);
    // A file's name may be any bytes.
    return object.dump(run.one_line ? -1 : 2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

} // namespace

void say(const outcome& run, bool json)
{
    const bool written =
        run.told || write_out(json ? object_text(run, status_of(run.failed.what)) : printable_lines(run.answer));
    const int error = errno;
    const bool unheard = run.failed.what == problem::io_error && interrupted(); // a pipe whose reader went
    if (run.failed.what != problem::none && !unheard) {
        fprintf(stderr, "rvkctl: %s\n", printable_lines(run.failed.text).c_str());
    }
    if (written) { return; }
    throw failure{problem::io_error,
                  std::string("the answer could not be written to standard output: ") + strerror(error)};
}

int present(const outcome& run, bool json)
{
    const exit_status status = status_of(run.failed.what);
    try {
        say(run, json);
    } catch (const failure& unwritten) {
        if (!interrupted()) { fprintf(stderr, "rvkctl: %s\n", unwritten.text.c_str()); } // else nobody reads
        return status == exit_done ? status_of(unwritten.what) : status;
    }
    return status;
}

void note_result(int32_t result, nlohmann::ordered_json& facts)
{
    facts["result"] = result;
    facts["result_meaning"] = result == 0    ? "success"
                              : result == -1 ? "failure"
                                             : "a result this program does not know";
}

} // namespace rvk::ctl
