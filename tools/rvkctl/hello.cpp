// Asks the daemon whether it is there and handles commands.
#include "rvkctl/commands.h"

#include "ap_msg/message.h"
#include "command/values.h"

#include <chrono>

namespace rvk::ctl {

void run_hello(const settings& used, outcome& run)
{
    run.facts.update(facts_of(used));
    run.facts["code"] = command::greeting;
    run.facts["code_meaning"] = "greeting";
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    const auto asked = std::chrono::steady_clock::now();
    const std::string text = talk.greet();
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - asked;
    run.facts["text"] = text;
    run.facts["elapsed_ms"] = took.count();
    run.answer = format("board %d answered in %.1f ms: %s\n", used.board, took.count(), text.c_str());
}

} // namespace rvk::ctl
