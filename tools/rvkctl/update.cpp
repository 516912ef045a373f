// Firmware of a card, through the daemon's file service. The daemon answers when the update is over, and answers nobody
// else meanwhile.
#include "rvkctl/commands.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "command/values.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string_view>
#include <sys/stat.h>
#include <sys/wait.h>

namespace rvk::ctl {
namespace {

constexpr uint8_t type_first = 0x16, type_last = 0x1E, mcu_last = 0x18;

struct type_name {
    const char* name;
    uint8_t type;
};
constexpr type_name names[] = {
    {"mcu-input", 0x16}, {"mcu-output", 0x17},        {"mcu-vpu", 0x18}, {"fpga-input", 0x19}, {"fpga-1a", 0x1A},
    {"fpga-1b", 0x1B},   {"fpga-input-golden", 0x1C}, {"fpga-1d", 0x1D}, {"fpga-1e", 0x1E},
};

const char* name_of(uint8_t type)
{
    for (const type_name& row : names) {
        if (row.type == type) { return row.name; }
    }
    return "unknown";
}

std::vector<uint8_t> payload_of(uint8_t type, const std::string& path)
{
    std::vector<uint8_t> out(update_job::path + path.size() + 1); // the last stays zero
    store_le32(out.data() + update_job::type, type);
    std::copy(path.begin(), path.end(), out.begin() + update_job::path);
    return out;
}

// What the daemon takes of names: an FPGA image's by its marker, a microcontroller's for the tool's command line.
bool is_fpga_name(std::string_view path)
{
    return path.find(".bin") != path.npos || path.find(".BIN") != path.npos || path.find(".Bin") != path.npos;
}

bool is_plain_name(std::string_view path)
{
    constexpr char plain[] = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ/._+-=,@%:";
    return path.find_first_not_of(plain) == path.npos && !path.substr(path.rfind('/') + 1).starts_with('-');
}

// The daemon says only that it failed: its log knows why. Whatever is wrong with the file can be seen from here too.
std::string refusal_text(uint8_t type, const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) { return strerror(errno); }
    if (!S_ISREG(status.st_mode)) { return "it is not a regular file"; }
    if (type <= mcu_last) {
        return is_plain_name(path)
                   ? "the programming tool could not be run"
                   : "give it a path of letters, digits and /._+-=,@%: alone, and a name without '-' in front";
    }
    if (!is_fpga_name(path)) { return "the name of an FPGA image has .bin, .BIN or .Bin in it"; }
    return "the card refused it or did not answer, or the daemon could not copy it";
}

// A microcontroller's result is the programming tool's, as a shell reports it.
std::string reason_text(uint8_t type, int32_t result, const std::string& path)
{
    if (type > mcu_last || result < 0) { return refusal_text(type, path); }
    if (WIFEXITED(result) && WEXITSTATUS(result) == 127) { return "the programming tool is not there (status 127)"; }
    if (WIFEXITED(result)) { return format("the programming tool ended with status %d", WEXITSTATUS(result)); }
    return format("the programming tool ended by signal %d", WTERMSIG(result));
}

} // namespace

uint8_t update_type_in(const std::string& text)
{
    for (const type_name& row : names) {
        if (text == row.name) { return row.type; }
    }
    try {
        return static_cast<uint8_t>(number_in("--type", text, type_first, type_last));
    } catch (const failure&) {
        throw failure{problem::wrong_usage,
                      "--type \"" + text + "\": give a name or its number: " + update_type_names()};
    }
}

std::string update_type_names()
{
    std::string out;
    for (const type_name& row : names) { out += format("%s%s (0x%02x)", out.empty() ? "" : ", ", row.name, row.type); }
    return out;
}

void run_update(const settings& used, const update_options& options, outcome& run)
{
    run.facts.update(facts_of(used));
    run.facts["code"] = command::update;
    run.facts["code_meaning"] = "firmware update";
    run.facts["slot"] = options.slot;
    run.facts["model"] = options.model;
    run.facts["type"] = options.type;
    run.facts["type_meaning"] = name_of(options.type);
    const std::string path = absolute_path(options.file, "FILE", update_path_max);
    run.facts["file"] = path;
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    talk.greet();
    const stop_watch watch;
    const auto payload = payload_of(options.type, path);
    const answer got = talk.ask_patiently({.code = command::update,
                                           .slot = options.slot,
                                           .model = options.model,
                                           .addr = 0,
                                           .len = static_cast<uint16_t>(payload.size()),
                                           .payload = payload});
    run.facts["result"] = got.result;
    run.facts["result_meaning"] = result_meaning(got.result);
    run.facts["elapsed_s"] = watch.seconds();
    if (got.result != 0) {
        throw failure{problem::refused,
                      format("update of slot %d with \"%s\" failed (result %d): %s; see rvkd's log", options.slot,
                             path.c_str(), got.result, reason_text(options.type, got.result, path).c_str())};
    }
    const uint64_t bytes = file_bytes(path);
    run.facts["data_bytes"] = bytes;
    run.answer =
        format("slot %d updated (%s): ", options.slot, name_of(options.type)) + rate_text(bytes, watch.seconds());
}

} // namespace rvk::ctl
