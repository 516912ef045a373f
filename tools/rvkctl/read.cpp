// Reads from a card, through the daemon, and shows the bytes or puts them into a file.
#include "rvkctl/reading.h"

#include "ap_msg/message.h"
#include "command/values.h"

namespace rvk::ctl {
namespace {

std::string what_text(const read_options& what)
{
    return format("read of %s at 0x%08x from slot %d, model 0x%x", byte_count(what.len).c_str(), what.addr, what.slot,
                  what.model);
}

// The bytes that a good answer says it carries.
std::vector<uint8_t> data_of(const answer& got, const read_options& what)
{
    if (got.length > got.payload.size()) {
        throw failure{problem::refused, format("%s: the answer claims %u bytes and carries %zu: is this the daemon's "
                                               "version that belongs to this program?",
                                               what_text(what).c_str(), got.length, got.payload.size())};
    }
    return {got.payload.begin(), got.payload.begin() + static_cast<ptrdiff_t>(got.length)};
}

} // namespace

void note_request(const read_options& what, nlohmann::ordered_json& facts)
{
    facts["code"] = command::read;
    facts["code_meaning"] = "read";
    facts["slot"] = what.slot;
    facts["model"] = what.model;
    facts["addr"] = what.addr;
    facts["len"] = what.len;
}

std::vector<uint8_t> read_card(session& talk, const read_options& what, nlohmann::ordered_json& facts)
{
    const answer got = talk.ask({.code = command::read,
                                 .slot = what.slot,
                                 .model = what.model,
                                 .addr = what.addr,
                                 .len = what.len,
                                 .payload = {}});
    facts["result"] = got.result;
    facts["result_meaning"] = result_meaning(got.result);
    if (got.result != 0) {
        throw failure{problem::refused,
                      format("%s failed (result %d): the card did not answer or refused; check slot, model and address",
                             what_text(what).c_str(), got.result)};
    }
    std::vector<uint8_t> data = data_of(got, what);
    facts["data_bytes"] = data.size();
    facts["data"] = hex_text(data);
    return data;
}

void check_length(const read_options& what, const std::vector<uint8_t>& data)
{
    if (data.size() >= what.len) { return; }
    throw failure{problem::short_answer, format("%s: the card sent only %s; does that register block end there?",
                                                what_text(what).c_str(), byte_count(data.size()).c_str())};
}

void run_read(const settings& used, const read_options& options, outcome& run)
{
    run.facts.update(facts_of(used));
    note_request(options, run.facts);
    run.one_line = options.repeat.has_value();
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    if (options.repeat) { return watch_card(talk, options, used.json, run); }
    const std::vector<uint8_t> data = read_card(talk, options, run.facts);
    if (options.out_file.empty()) {
        run.answer = hex_dump(options.addr, data);
    } else {
        write_file(options.out_file, data);
        run.facts["out_file"] = options.out_file;
        run.answer = format("%s written to %s\n", byte_count(data.size()).c_str(), options.out_file.c_str());
    }
    check_length(options, data);
}

} // namespace rvk::ctl
