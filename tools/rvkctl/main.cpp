// rvkctl: commands for a running daemon, for people and scripts. What its command line may say, and its help.
#include "ap_msg/message.h"
#include "command/options.h"
#include "eth_raw/frame.h"
#include "platform/platform.h"
#include "rvkctl/commands.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

namespace rvk::ctl {
namespace {

constexpr uint64_t longest_ms = 24ull * 3600 * 1000; // ours: of a timeout and of an interval

constexpr char about[] = "Sends commands to a running rvkd over the board's messaging service and shows the answers.";
constexpr char footer[] =
    R"(Numbers are decimal or 0x… . Options may stand before or behind the command; rvkctl COMMAND --help says more.

Exit status: 0 done; 1 the daemon or the card said no, or a file or standard output could not be written; 2 wrong usage,
or a file of yours that cannot be used; 3 no answer of the daemon or the card. During a firmware update the daemon
answers nobody.

Environment: APCARD_SELF, this board's number; APIPC_DIR, the folder of the messaging service's sockets (/run/apipc);
RVK_STATUS_DIR, the folder of the daemon's figures (/run/rvkd); the last two as rvkd has them.

  rvkctl hello
  rvkctl read 2 0x10000 16
  rvkctl write 2 0x10000 "01 00 00 80" --verify
  rvkctl picture put card.raw --size 3840x2160 --buffer 16
  rvkctl update top.bin --type fpga-1a --slot 3
  rvkctl status --watch
)";

constexpr char read_footer[] = R"(Done: the card sent the bytes asked for. What is shown without --out, xxd -r reads.
With --repeat: every read was good; one that fails is told and ends nothing, the exit status is the first such one's,
and Ctrl-C is an orderly end.)";

constexpr char write_footer[] =
    R"(Data travels in commands of at most 1400 bytes, each confirmed before the next is sent. Done: the card answered each
one; answered, not accepted, since a status that is not good counts too. To slot 1, model 0, below 0x10000000 the daemon
answers only the companion (--as 0x3C): for others it took the write and reported no failure within 400 ms. With
--no-ack it took the write, and nothing is known of the card. --verify is not for registers that change or cannot be
read.)";

constexpr char put_footer[] =
    R"(Done: the card acknowledged the picture's control writes; its data needs no answer. 3: it did not. "sent": the daemon's
figures do not say. "rvkctl picture get" and cmp show what the card holds. Waits as long as the daemon lives, unless
--timeout is given.)";

constexpr char get_footer[] =
    R"(Done: both files are complete, and the card answered every step. What it did not answer is zero, and the status 3.
Waits as long as the daemon lives, unless --timeout is given. Ctrl-C ends the waiting, not the daemon's work.)";

constexpr char update_footer[] =
    R"(Done: the card took the whole image, or the programming tool ended well. Waits as long as the daemon lives, unless
--timeout is given. Ctrl-C ends the waiting, not the update.)";

constexpr char status_footer[] =
    R"(Figures that rvkd wrote within the last 3 s. It is not asked, so it need not answer, and no privilege is needed.)";

// What the command line says, and what comes of it.
struct command_line {
    settings used;
    outcome run;
    std::optional<uint8_t> board;
    read_options read;
    write_options write;
    picture_options picture{{.slot = 1}};
    update_options update;
    bool watch = false;
    chosen_command chosen;
};

void add_model(CLI::App& app, card_options& card)
{
    add_number(app, "--model", "M", card.model, "Card model, 0 to 65535; default 0");
}

void add_card(CLI::App& app, card_options& card)
{
    add_number(app, "SLOT", "", card.slot, "Card slot, 0 to 255");
    add_number(app, "ADDR", "", card.addr, "Register or memory address, 32 bits");
    add_model(app, card);
}

void add_read(CLI::App& app, command_line& line)
{
    read_options& read = line.read;
    CLI::App& command = add_command(app, "read", "Read from a card and show the bytes", read_footer, line.chosen,
                                    [&] { run_read(line.used, line.read, line.run); });
    add_card(command, read);
    add_number(command, "LEN", "", read.len, "Bytes to read, 1 to 1400", 1, frame_data_max);
    add_text(command, "--out", "FILE", read.out_file, "Put the bytes into FILE instead of showing them");
    add_number(command, "--repeat", "N", read.repeat,
               "Read N times, 0: until a signal ends it, and show what is new, with its time");
    add_number(command, "--interval", "MS", read.interval_ms, "From one repeated read to the next, in ms; default 1000",
               1, longest_ms);
    command.add_flag("--all", read.all, "Show every repeated read, not only what is new");
}

void add_write(CLI::App& app, command_line& line)
{
    write_options& write = line.write;
    CLI::App& command = add_command(app, "write", "Write to a card", write_footer, line.chosen,
                                    [&] { run_write(line.used, line.write, line.run); });
    add_card(command, write);
    command.add_option("BYTES", write.words, "Hex digits in memory order, blanks allowed between bytes")->type_name("");
    add_text(command, "--file", "FILE", write.file, "Write what FILE holds");
    command.add_flag("--no-ack", write.no_ack, "Do not ask the card for an acknowledgement");
    command.add_flag("--verify", write.verify, "Read it back and compare; status 1 when it differs");
}

void add_picture(CLI::App& app, command_line& line)
{
    picture_options& options = line.picture;
    CLI::App& picture = add_group(app, "picture", "Move a picture between a file and a card's memory");
    CLI::App& put = add_command(picture, "put", "Write a picture file into a card's picture buffer", put_footer,
                                line.chosen, [&] { run_picture_put(line.used, line.picture, line.run); });
    add_text(put, "FILE", "", options.file, "4 bytes a pixel as they stand; of a .bmp from its pixels on");
    add_number(put, "--buffer", "N", options.addr,
               "Number of the card's picture buffer, 0 to 255; those of the demo are 16 to 24", 0, UINT8_MAX)
        ->required();
    CLI::App& get = add_command(picture, "get", "Read card memory into BASE and BASE.bmp", get_footer, line.chosen,
                                [&] { run_picture_get(line.used, line.picture, line.run); });
    add_text(get, "BASE", "", options.file, "Raw file; the image's name is this with .bmp");
    add_number(get, "--addr", "A", options.addr, "Start in card memory, in words of 8 bytes")->required();
    for (CLI::App* const command : {&put, &get}) {
        add_value(*command, "--size", "WxH", "Width and height in pixels", [&](const std::string& text) {
            line.picture.size = size_in("--size", text, 0);
        })->required();
        add_number(*command, "--slot", "S", options.slot, "Card slot, 0 to 255; default 1");
        add_model(*command, options);
    }
}

void add_update(CLI::App& app, command_line& line)
{
    CLI::App& command = add_command(app, "update", "Update a card's firmware", update_footer, line.chosen,
                                    [&] { run_update(line.used, line.update, line.run); });
    add_text(command, "FILE", "", line.update.file, "The image");
    add_value(command, "--type", "TYPE", "Kind of image: " + update_type_names(), [&](const std::string& text) {
        line.update.type = update_type_in(text);
    })->required();
    add_number(command, "--slot", "S", line.update.slot, "Card slot, 0 to 255")->required();
    add_model(command, line.update);
}

void add_commands(CLI::App& app, command_line& line)
{
    add_command(app, "hello", "Ask the daemon whether it is there",
                "Done: the daemon answered, so it handles commands.", line.chosen,
                [&] { run_hello(line.used, line.run); });
    add_read(app, line);
    add_write(app, line);
    add_picture(app, line);
    add_update(app, line);
    add_command(app, "status", "Show how the daemon is doing, without asking it", status_footer, line.chosen, [&] {
        run_status(line.used, line.watch, line.run);
    }).add_flag("--watch", line.watch, "Each second, with rates, until a signal ends it");
}

void add_settings(CLI::App& app, command_line& line)
{
    add_number(app, "--board", "N", line.board,
               "Board of the daemon and of the requester, 0 to 255; default APCARD_SELF");
    add_value(app, "--as", "MODULE",
              "Module number to ask as, default 0x7F; 0x3C acts as the companion, one process at a time",
              [&](const std::string& text) {
                  line.used.module = static_cast<uint8_t>(number_in("--as", text, 0, UINT8_MAX));
                  if (line.used.module != module_self) { return; }
                  fail(problem::wrong_usage, "--as \"%s\": 0x3b is the daemon itself, choose another module",
                       text.c_str());
              });
    add_number(app, "--timeout", "MS", line.used.timeout_ms, "Longest wait for each answer, in ms; default 5000", 1,
               longest_ms);
    app.add_flag("--json", line.used.json, "Print one JSON object instead, errors included");
}

uint8_t default_board()
{
    const char* named = getenv("APCARD_SELF");
    if (named == nullptr || *named == '\0') { return static_cast<uint8_t>(apcard_bit_self()); }
    return static_cast<uint8_t>(number_in("APCARD_SELF", named, 0, UINT8_MAX));
}

// Throws a failure. Result: the text of --help or --version, when that was asked for in place of a run.
std::string parse_and_run(int argc, char** argv, command_line& line)
{
    CLI::App app{about, "rvkctl"};
    set_up(app, footer);
    add_settings(app, line);
    add_commands(app, line);
    if (std::string asked = parse(app, argc, argv); !asked.empty()) { return asked; }
    line.used.board = line.board ? *line.board : default_board();
    line.run.command = line.chosen.name;
    line.chosen.run();
    return {};
}

int run_command_line(int argc, char** argv)
{
    command_line line;
    outcome& run = line.run;
    // Also for a command line that is not understood as a whole.
    line.used.json = std::any_of(argv, argv + argc, [](const char* word) { return strcmp(word, "--json") == 0; });
    try {
        const std::string asked = parse_and_run(argc, argv, line);
        if (!asked.empty()) { return write_out(asked); }
    } catch (const failure& failed) {
        run.command = line.chosen.name;
        run.failed = failed;
        if (status_of(failed.what) == exit_no_answer && run.command != "status") {
            run.failed.text += why_unreached(line.used.board);
        }
    } catch (const std::bad_alloc&) {
        run.failed = {problem::no_memory, "there is not enough memory"};
    } catch (const std::exception& error) {
        run.failed = {problem::io_error, error.what()};
    }
    return present(run, line.used.json);
}

} // namespace
} // namespace rvk::ctl

int main(int argc, char** argv)
{
    rvk::ctl::catch_signals();
    const int status = rvk::tool::run_tool("rvkctl", [=] { return rvk::ctl::run_command_line(argc, argv); });
    rvk::ctl::end_by_signal(); // all is cleared away
    return status;
}
