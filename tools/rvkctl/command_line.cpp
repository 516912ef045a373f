// See the header. CLI11 knows the shape; numbers and bytes are ours, so that each refusal names the value and its
// range.
#include "rvkctl/command_line.h"

#include "ap_msg/message.h"
#include "platform/platform.h"
#include "rvkctl/values.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>

namespace rvk::ctl {
namespace {

constexpr uint64_t longest_timeout_ms = 24ull * 3600 * 1000;

constexpr char about[] = "Sends commands to a running rvkd over the board's messaging service and shows the answers.";

constexpr char footer[] = R"(Numbers are decimal or 0x… . Options may stand before or behind the command.

What "done" means:
  hello  the daemon answered, so it handles commands.
  read   the card sent the bytes asked for.
  write  Data travels in commands of at most 1400 bytes, each confirmed before the next is sent. Normally the card
         answered each one: answered, not accepted, since an answer whose status is not good counts too. To slot 1,
         model 0, below address 0x10000000 the daemon answers only as the companion (--as 0x3C): for others, "done" says
         that it took the write and reported no failure within 400 ms. With --no-ack it took the write, and nothing is
         known of the card.

Exit status:
  0  done
  1  the daemon or the card said no
  2  wrong usage, or a file of yours that cannot be used
  3  no answer: no daemon, no permission, or the time ran out. During a firmware update the daemon answers nobody.

Environment:
  APCARD_SELF  this board's number, the default of --board (1 when unset)
  APIPC_DIR    the folder of the messaging service's sockets (/run/apipc when unset); the same as rvkd's

Examples:
  rvkctl hello
  rvkctl read 2 0x10000 16
  rvkctl read 2 0x10000 1400 --out block.bin
  rvkctl read 2 0x10000 16 | xxd -r -s -0x10000 > block.bin
  rvkctl write 2 0x10000 "01 00 00 80"
  rvkctl write 2 0x20000 --file table.bin --model 3
  rvkctl --json --board 4 read 1 0x100 4
)";

// What the options hold before they are understood.
struct raw_text {
    std::string board, module, timeout;
    std::string slot, model = "0", addr, len, file;
    std::vector<std::string> bytes;
};

uint8_t default_board()
{
    const char* named = getenv("APCARD_SELF");
    if (named == nullptr || *named == '\0') { return static_cast<uint8_t>(apcard_bit_self()); }
    return static_cast<uint8_t>(number_in("APCARD_SELF", named, 0, UINT8_MAX));
}

uint8_t module_in(const std::string& text)
{
    const auto module = static_cast<uint8_t>(number_in("--as", text, 0, UINT8_MAX));
    if (module == module_self) {
        throw failure{problem::wrong_usage, "--as \"" + text + "\": 0x3b is the daemon itself, choose another module"};
    }
    return module;
}

void take_settings(const raw_text& raw, settings& out)
{
    out.board =
        raw.board.empty() ? default_board() : static_cast<uint8_t>(number_in("--board", raw.board, 0, UINT8_MAX));
    if (!raw.module.empty()) { out.module = module_in(raw.module); }
    if (!raw.timeout.empty()) {
        out.timeout = std::chrono::milliseconds{number_in("--timeout", raw.timeout, 1, longest_timeout_ms)};
    }
}

read_options read_options_of(const raw_text& raw)
{
    read_options out;
    out.slot = static_cast<uint8_t>(number_in("SLOT", raw.slot, 0, UINT8_MAX));
    out.addr = static_cast<uint32_t>(number_in("ADDR", raw.addr, 0, UINT32_MAX));
    out.len = static_cast<uint16_t>(number_in("LEN", raw.len, 1, command_data_max));
    out.model = static_cast<uint16_t>(number_in("--model", raw.model, 0, UINT16_MAX));
    out.out_file = raw.file;
    return out;
}

write_options write_options_of(const raw_text& raw)
{
    if (raw.bytes.empty() == raw.file.empty()) {
        throw failure{problem::wrong_usage, "write needs either BYTES or --file FILE, and not both"};
    }
    write_options out;
    out.slot = static_cast<uint8_t>(number_in("SLOT", raw.slot, 0, UINT8_MAX));
    out.addr = static_cast<uint32_t>(number_in("ADDR", raw.addr, 0, UINT32_MAX));
    out.model = static_cast<uint16_t>(number_in("--model", raw.model, 0, UINT16_MAX));
    const uint64_t most = uint64_t{UINT32_MAX} + 1 - out.addr;
    out.bytes = raw.file.empty() ? bytes_of_hex(raw.bytes) : bytes_of_file(raw.file, most);
    if (out.bytes.size() > most) {
        throw failure{problem::wrong_usage, format("%zu bytes from 0x%08x on run past the last address, 0xffffffff",
                                                   out.bytes.size(), out.addr)};
    }
    return out;
}

void add_global_options(CLI::App& app, raw_text& raw, bool& json)
{
    app.add_option("--board", raw.board, "Board of the daemon and of the requester, 0 to 255; default APCARD_SELF")
        ->type_name("N");
    app.add_option("--as", raw.module,
                   "Module number to ask as, default 0x7F; 0x3C acts as the companion, one process at a time")
        ->type_name("MODULE");
    app.add_option("--timeout", raw.timeout, "Longest wait for each answer, in ms; default 5000")->type_name("MS");
    app.add_flag("--json", json, "Print one JSON object instead, errors included");
}

void add_card_options(CLI::App& command, raw_text& raw)
{
    command.add_option("SLOT", raw.slot, "Card slot, 0 to 255")->required()->type_name("");
    command.add_option("ADDR", raw.addr, "Register or memory address, 32 bits")->required()->type_name("");
    command.add_option("--model", raw.model, "Card model, 0 to 65535; default 0")->type_name("M");
}

// Whether --json stands on a command line that could not be understood as a whole.
bool names_json(int argc, char** argv)
{
    return std::any_of(argv + 1, argv + argc, [](const char* argument) { return strcmp(argument, "--json") == 0; });
}

} // namespace

void parse_command_line(int argc, char** argv, command_line& out)
{
    out.used.json = argc > 1 && names_json(argc, argv);
    CLI::App app{about, "rvkctl"};
    raw_text raw;
    bool no_ack = false;
    app.footer(footer);
    app.require_subcommand(0, 1); // none is refused below: CLI11 would not say which word it did not know
    app.fallthrough();
    add_global_options(app, raw, out.used.json);

    CLI::App* hello = app.add_subcommand("hello", "Ask the daemon whether it is there");
    CLI::App* read = app.add_subcommand("read", "Read from a card and show the bytes");
    add_card_options(*read, raw);
    read->add_option("LEN", raw.len, "Bytes to read, 1 to 1400")->required()->type_name("");
    read->add_option("--out", raw.file, "Put the bytes into FILE instead of showing them")->type_name("FILE");
    CLI::App* write = app.add_subcommand("write", "Write to a card");
    add_card_options(*write, raw);
    write->add_option("BYTES", raw.bytes, "Hex digits in memory order, blanks allowed between bytes")->type_name("");
    write->add_option("--file", raw.file, "Write what FILE holds")->type_name("FILE");
    write->add_flag("--no-ack", no_ack, "Do not ask the card for an acknowledgement");

    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        out.help = app.help();
        return;
    } catch (const CLI::ParseError& error) {
        throw failure{problem::wrong_usage, std::string(error.what()) + "; see rvkctl --help"};
    }
    if (app.get_subcommands().empty()) {
        throw failure{problem::wrong_usage, "no command given: one of hello, read, write; see rvkctl --help"};
    }
    out.command = app.get_subcommands().front()->get_name();
    take_settings(raw, out.used);
    if (hello->parsed()) {
        out.run = run_hello;
    } else if (read->parsed()) {
        out.run = [options = read_options_of(raw)](const settings& used, outcome& run) {
            run_read(used, options, run);
        };
    } else {
        write_options options = write_options_of(raw);
        options.no_ack = no_ack;
        out.run = [options = std::move(options)](const settings& used, outcome& run) { run_write(used, options, run); };
    }
}

} // namespace rvk::ctl
