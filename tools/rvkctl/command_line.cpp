// See the header. CLI11 knows the shape; numbers and bytes are ours, so that each refusal names the value and its
// range.
#include "rvkctl/command_line.h"

#include "ap_msg/message.h"
#include "command/values.h"
#include "platform/platform.h"
#include "rvkctl/status_view.h"
#include "rvkctl/subcommands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>

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

  picture put  the daemon wrote the file's picture into the card's buffer; the card acknowledges none of its data.
  picture get  both files are complete. What the card did not answer is zero in them.
  update       the card took the whole image, or the programming tool ended well.
These three wait as long as the daemon lives, unless --timeout is given, and show the time they take on a terminal.

  status  figures that rvkd wrote within the last 3 s. It is not asked, so it need not answer, and no privilege is needed.

  read --repeat         every read was good. One that fails is told and ends nothing; the exit status is the first such
                        one's. Ctrl-C is an orderly end. With --json each line is an object.
  write --verify        what was read back is what was written. Not for registers that change or cannot be read.
  picture put --verify  what was read back from --addr is the picture, as far as a read-back goes: of a card that keeps
                        lines one behind the other that is 1400 of each 1408 bytes. It goes into a folder in TMPDIR,
                        which rvkd must reach, and is gone afterwards.

Exit status:
  0  done
  1  the daemon or the card said no
  2  wrong usage, or a file of yours that cannot be used
  3  no answer: no daemon, no permission, or the time ran out. During a firmware update the daemon answers nobody.
     Of status: there are no figures, or they are older than 3 s.

Environment:
  APCARD_SELF  this board's number, the default of --board (1 when unset)
  APIPC_DIR    the folder of the messaging service's sockets (/run/apipc when unset); the same as rvkd's
  RVK_STATUS_DIR  the folder of the daemon's figures (/run/rvkd when unset); the same as rvkd's
  TMPDIR       where picture put --verify reads back to (/tmp when unset)

Examples:
  rvkctl hello
  rvkctl read 2 0x10000 16
  rvkctl read 2 0x10000 1400 --out block.bin
  rvkctl read 2 0x10000 16 | xxd -r -s -0x10000 > block.bin
  rvkctl write 2 0x10000 "01 00 00 80"
  rvkctl read 2 0x10000 4 --repeat 0 --interval 200
  rvkctl write 2 0x10000 "01 00 00 80" --verify
  rvkctl write 2 0x20000 --file table.bin --model 3
  rvkctl --json --board 4 read 1 0x100 4
  rvkctl picture put card.raw --size 3840x2160 --buffer 16
  rvkctl picture put card.raw --size 3840x2160 --buffer 16 --verify --addr 0x10000000
  rvkctl picture get /tmp/back --size 3840x2160 --addr 0
  rvkctl update top.bin --type fpga-1a --slot 3
  rvkctl status --watch
)";

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
        out.timeout_given = true;
    }
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
    chosen choice;
    app.footer(footer);
    app.require_subcommand(0, 1); // none is refused below: CLI11 would not say which word it did not know
    app.fallthrough();
    add_global_options(app, raw, out.used.json);
    add_subcommands(app, raw, choice);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        out.help = app.help();
        return;
    } catch (const CLI::ParseError& error) {
        throw failure{problem::wrong_usage, std::string(error.what()) + "; see rvkctl --help"};
    }
    if (!choice.understand) {
        throw failure{
            problem::wrong_usage,
            "no command given: one of hello, read, write, picture put, picture get, update, status; see rvkctl --help"};
    }
    out.command = choice.command;
    take_settings(raw, out.used);
    out.run = choice.understand();
}

int run_command_line(int argc, char** argv)
{
    command_line line;
    outcome run;
    try {
        parse_command_line(argc, argv, line);
        if (!line.help.empty()) { return fputs(line.help.c_str(), stdout) < 0 || fflush(stdout) != 0 ? 2 : 0; }
        run.command = line.command;
        line.run(line.used, run);
    } catch (const failure& failed) {
        run.command = line.command;
        run.failed = failed;
        if (status_of(failed.what) == exit_no_answer && line.command != "status") {
            run.failed.text += why_unreached(line.used.board);
        }
    } catch (const std::exception& error) { // no memory
        run.command = line.command;
        run.failed = {problem::wrong_usage, error.what()};
    }
    return present(run, line.used.json);
}

} // namespace rvk::ctl
