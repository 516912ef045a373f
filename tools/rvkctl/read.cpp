// Reads from a card, through the daemon, and shows the bytes or puts them into a file.
#include "rvkctl/commands.h"

#include "ap_msg/message.h"
#include "command/values.h"

namespace rvk::ctl {
namespace {

std::string what_text(const read_options& options)
{
    return format("read of %s at 0x%08x from slot %d, model 0x%x", byte_count(options.len).c_str(), options.addr,
                  options.slot, options.model);
}

void note_request(const read_options& options, outcome& run)
{
    run.facts["code"] = command::read;
    run.facts["code_meaning"] = "read";
    run.facts["slot"] = options.slot;
    run.facts["model"] = options.model;
    run.facts["addr"] = options.addr;
    run.facts["len"] = options.len;
}

// The bytes that a good answer says it carries.
std::vector<uint8_t> data_of(const answer& got, const read_options& options)
{
    if (got.length > got.payload.size()) {
        throw failure{problem::refused, format("%s: the answer claims %u bytes and carries %zu: is this the daemon's "
                                               "version that belongs to this program?",
                                               what_text(options).c_str(), got.length, got.payload.size())};
    }
    return {got.payload.begin(), got.payload.begin() + static_cast<ptrdiff_t>(got.length)};
}

} // namespace

void run_read(const settings& used, const read_options& options, outcome& run)
{
    run.facts.update(facts_of(used));
    note_request(options, run);
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    const answer got = talk.ask({.code = command::read,
                                 .slot = options.slot,
                                 .model = options.model,
                                 .addr = options.addr,
                                 .len = options.len,
                                 .payload = {}});
    run.facts["result"] = got.result;
    run.facts["result_meaning"] = result_meaning(got.result);
    if (got.result != 0) {
        throw failure{problem::refused,
                      format("%s failed (result %d): the card did not answer or refused; check slot, model and address",
                             what_text(options).c_str(), got.result)};
    }
    const std::vector<uint8_t> data = data_of(got, options);
    run.facts["data_bytes"] = data.size();
    run.facts["data"] = hex_text(data);
    if (options.out_file.empty()) {
        run.answer = hex_dump(options.addr, data);
    } else {
        write_file(options.out_file, data);
        run.facts["out_file"] = options.out_file;
        run.answer = format("%s written to %s\n", byte_count(data.size()).c_str(), options.out_file.c_str());
    }
    if (data.size() < options.len) {
        throw failure{problem::short_answer, format("%s: the card sent only %s; does that register block end there?",
                                                    what_text(options).c_str(), byte_count(data.size()).c_str())};
    }
}

} // namespace rvk::ctl
