// See the header.
#include "system/daemon.h"

#include "base/bytes.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

namespace rvk {
namespace {

const std::string recorder_folder = "/run/rvk-bench/recorders";

void write_recorder()
{
    std::filesystem::create_directories(recorder_folder);
    const std::string path = recorder_folder + "/sysctl";
    if (std::filesystem::exists(path)) { return; }
    std::ofstream(path) << "#!/bin/sh\nprintf '%s|' \"$@\" >> " + sysctl_record + "\necho >> " + sysctl_record + "\n";
    std::filesystem::permissions(path, std::filesystem::perms::owner_all);
}

// A script that runs a program of another processor under the emulator; the emulator by a link with the program's name,
// since that is what the main thread is called then.
std::string launcher(const std::string& name, const std::string& path, const std::string& emulator)
{
    const std::filesystem::path folder = "/run/rvk-bench/emulated";
    const std::string script = folder / name;
    if (std::filesystem::exists(script)) { return script; }
    std::filesystem::create_directories(folder / "by");
    const size_t word = std::min(emulator.find(' '), emulator.size());
    std::filesystem::create_symlink("/usr/bin/" + emulator.substr(0, word), folder / "by" / name);
    std::ofstream(script) << "#!/bin/sh\nexec " << (folder / "by" / name).string() << emulator.substr(word) << " '"
                          << path << "' \"$@\"\n";
    std::filesystem::permissions(script, std::filesystem::perms::all ^ std::filesystem::perms::group_write ^
                                             std::filesystem::perms::others_write);
    return script;
}

std::vector<std::string> command_line(std::vector<std::string> in_front, const std::vector<std::string>& arguments)
{
    in_front.push_back(program("rvkd"));
    in_front.insert(in_front.end(), arguments.begin(), arguments.end());
    return in_front;
}

} // namespace

bool is_emulated()
{
    const char* const emulator = getenv("RVK_EMULATOR");
    return emulator != nullptr && *emulator != '\0';
}

std::vector<int> deadly_signals()
{
    std::vector<int> all{SIGTERM, SIGINT, SIGQUIT};
    if (!is_emulated()) { all.push_back(SIGSEGV); }
    return all;
}

std::string program(const std::string& name)
{
    const std::string path = (std::filesystem::read_symlink("/proc/self/exe").parent_path() / name).string();
    return is_emulated() ? launcher(name, path, getenv("RVK_EMULATOR")) : path;
}

child_setup daemon_setup()
{
    write_recorder();
    return {.environment = {"PATH=" + recorder_folder + ":" + getenv("PATH"), sanitizer_manners}};
}

daemon_process::daemon_process(const std::vector<std::string>& arguments, const child_setup& setup,
                               std::vector<std::string> in_front)
    : child(command_line(std::move(in_front), arguments), setup)
{
}

log_line parse_log_line(const std::string& line)
{
    static const std::regex form(R"(\[(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d\.\d{3}) pid=(\d+)\] )"
                                 R"(\[ ( *[^ ]*)/( *[^ ]*)/( *\d+) \]:: ([^]*))");
    std::smatch part;
    log_line out;
    if (!std::regex_match(line, part, form)) { return out; }
    const std::string module = part[3], function = part[4];
    out.whole = module.size() >= 10 && function.size() >= 30 && part[5].length() >= 5;
    out.time = part[1];
    out.pid = std::stoi(part[2]);
    out.module = module.substr(module.find_last_of(' ') + 1);
    out.function = function.substr(function.find_last_of(' ') + 1);
    out.source_line = std::stoi(part[5]);
    out.text = part[6];
    return out;
}

std::string fault_in_last_words(const std::string& log)
{
    static const std::regex frame(R"(.*\[0x[0-9a-f]+\])");
    static const std::regex count(R"(backtrace\(\) returned (\d+) addresses)");
    const size_t death = log.find("task_die!!!\n");
    if (death == std::string::npos) { return "no task_die!!!"; }
    if (log.find("task_die!!!", death + 1) != std::string::npos) { return "task_die!!! twice"; }
    std::istringstream rest(log.substr(death));
    int frames = 0, claimed = -1;
    for (std::string line; std::getline(rest, line);) {
        const log_line parsed = parse_log_line(line);
        std::smatch number;
        if (std::regex_match(parsed.text, number, count)) { claimed = std::stoi(number[1]); }
        if (std::regex_match(parsed.text, frame)) { frames += claimed >= 0 ? 1 : 1000; } // a frame before the count
    }
    if (claimed < 3) { // the handler's own, and whose it is
        return "a count of " + std::to_string(claimed);
    }
    if (frames == claimed) { return ""; }
    return std::to_string(frames) + " frames where " + std::to_string(claimed) + " were announced";
}

conversation::conversation(uint32_t own_identity)
{
    const endpoint_status opened = own_identity == 0 ? open_free(1) : open(own_identity);
    // The daemon makes the folder; a test that comes before it waits.
    if (opened == endpoint_status::no_directory) {
        const bool made =
            comes_true([&] { return (own_identity == 0 ? open_free(1) : open(own_identity)) == endpoint_status::ok; });
        if (!made) { abort(); }
    } else if (opened != endpoint_status::ok) {
        abort();
    }
}

std::vector<uint8_t> conversation::pack(const command_fields& fields) const
{
    std::vector<uint8_t> m(std::max(message_head_bytes, message::payload + fields.payload.size()));
    store_le32(m.data() + message::aptid, identity());
    store_le32(m.data() + message::word1, 0x11223344);
    store_le16(m.data() + message::msg_type, static_cast<uint16_t>(fields.type));
    store_le16(m.data() + message::msg_class, static_cast<uint16_t>(data_class));
    m[message::id] = fields.id;
    m[message::code] = fields.code;
    m[message::slot] = fields.slot;
    store_le16(m.data() + message::model, fields.model);
    store_le16(m.data() + message::seq, fields.seq);
    store_le32(m.data() + message::addr, fields.addr);
    const size_t len = fields.len < 0 ? fields.payload.size() : static_cast<size_t>(fields.len);
    store_le16(m.data() + message::len, static_cast<uint16_t>(len));
    std::copy(fields.payload.begin(), fields.payload.end(), m.begin() + message::payload);
    return m;
}

void conversation::tell(std::span<const uint8_t> message)
{
    // A daemon that has just been started is not there yet.
    static_cast<void>(comes_true([&] { return send(daemon_identity, message, patience) == endpoint_status::ok; }));
}

std::vector<uint8_t> conversation::ask(const command_fields& fields, milliseconds wait)
{
    tell(fields);
    return receive(wait);
}

bool conversation::is_greeted(milliseconds wait)
{
    return ask({.code = command::greeting}, wait).size() == message_head_bytes + greeting_payload_bytes;
}

int32_t result_of(std::span<const uint8_t> answer)
{
    if (answer.size() < message_head_bytes) { return 1; }
    return static_cast<int32_t>(load_le32(answer.data() + message::result));
}

} // namespace rvk
