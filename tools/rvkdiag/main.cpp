// rvkdiag: works on a card link directly, for people at the bench. What its command line may say, and the help that
// says so; everything is understood before anything is opened.
#include "base/board.h"
#include "base/fd.h"
#include "command/options.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/frame.h"
#include "main/diagnosis.h"
#include "rvkdiag/commands.h"
#include "rvkdiag/log.h"

#include <algorithm>
#include <cctype>
#include <fcntl.h>

namespace rvk::diag {
namespace {

using namespace tool;

constexpr char about[] =
    "Works on a card link directly, with no daemon on it: peek and poke, pictures, LVDS test, bus blocks.";
constexpr char footer[] =
    R"(Numbers of fpga are hexadecimal, those of the other commands decimal or 0x… . ID and LINK are 0, 1 or 2: eth0 to eth2.
While a daemon is alive nothing works on link 0 here, and one rvkdiag at a time works on a link.

Exit status: 0 done; 1 the card refused or sent too little, or a file or standard output could not be written; 2 wrong
usage, a file of yours that cannot be used, or a link in use; 3 no answer, or no way to the card. Without -v the last
line on standard error says why.

  rvkdiag fpga 0 readw 0 2 10000 10
  rvkdiag fpga 1 writeaw 3 2 10000 "01 00 00 80"
  rvkdiag picture 0x1000 1920x1080 card.bmp ee e10
  rvkdiag bus read 1 0x20000 65536 block.bin
)";

constexpr char fpga_footer[] =
    R"(VALUE is hex digits in memory order, in pairs; what is not hex digits alone is a FILENAME (./cafe names a file).
  read     done: the card sent LEN bytes; asked up to three times. readw asks once and waits longer.
  write    done: the frames were sent. Nobody knows what the card did with them.
  writea   done: the card acknowledged every frame; each is sent up to three times, all without waiting.
  writeaw  done: the card acknowledged every frame, each before the next was sent.)";

constexpr char picture_footer[] =
    "Done: the frames were sent; they are not acknowledged. What FILE has too little for WxH is zero.";
constexpr char bus_read_footer[] =
    "Done: the whole block came, in packets of up to 8026 bytes (MTU 9000 at both ends), and is in FILE.";
constexpr char bus_write_footer[] = "Done: the packets were sent; they are not acknowledged.";

struct command_line {
    fpga_options fpga;
    picture_options picture;
    bus_options bus;
    bool reboot = false, verbose = false;
    chosen_command chosen;
    std::string answer;
};

std::vector<uint8_t> value_or_file(const std::string& text)
{
    const bool value = std::all_of(text.begin(), text.end(),
                                   [](unsigned char c) { return std::isxdigit(c) != 0 || c == ' ' || c == '\t'; });
    if (value) { return bytes_of_hex("VALUE", {text}); }
    try {
        return bytes_of_file(text);
    } catch (failure& failed) {
        failed.text = "VALUE \"" + text + "\" is not hex digits alone, so it names a file: " + failed.text;
        throw;
    }
}

std::string understand_and_run(fpga_options& o)
{
    if (o.kind->reads) {
        o.len = static_cast<uint16_t>(number_in("LEN", o.last, 1, frame_data_max, 16));
    } else {
        o.bytes = value_or_file(o.last);
    }
    check_space(o.addr, o.len + o.bytes.size());
    return run_fpga(o);
}

void add_fpga(CLI::App& app, command_line& line)
{
    fpga_options& o = line.fpga;
    CLI::App& fpga = add_command(app, "fpga", "Read or write card registers; all numbers hexadecimal", fpga_footer,
                                 line.chosen, [&line] { line.answer = understand_and_run(line.fpga); });
    add_number(fpga, "ID", "", o.link, "Link, 0 to 2", 0, MAX_ETH - 1, 16);
    add_value(fpga, "KIND", "", "read, readw; write (plain), writea (acknowledged), writeaw (and waited for)",
              [&o](const std::string& text) { o.kind = &fpga_kind_in(text); });
    add_number(fpga, "MODEL", "", o.model, "Card model, 0 to ffff", 0, UINT16_MAX, 16);
    add_number(fpga, "SLOT", "", o.slot, "Card slot, 0 to ff", 0, UINT8_MAX, 16);
    add_number(fpga, "ADDR", "", o.addr, "Register or memory address, 32 bits", 0, UINT32_MAX, 16);
    add_text(fpga, "LEN|VALUE|FILENAME", "", o.last, "Bytes to read, 1 to 578; or what to write");
}

void add_picture(CLI::App& app, command_line& line)
{
    picture_options& o = line.picture;
    CLI::App& picture = add_command(app, "picture", "Load a picture into a memory behind link 1 or 2", picture_footer,
                                    line.chosen, [&line] { line.answer = run_picture(line.picture); });
    add_number(picture, "ADDR", "", o.addr, "Card memory address, in units of 8 bytes");
    add_value(picture, "WxH", "", "Width and height in pixels",
              [&o](const std::string& text) { o.size = size_in("WxH", text, 1); });
    add_text(picture, "FILE", "", o.file, "A .bmp of 24 bits a pixel; any other file as card pixels of 4 bytes");
    add_text(picture, "TS_SEL", "", o.ts_sel, "Its second character is e");
    add_text(picture, "FPGA_SEL", "", o.fpga_sel,
             "Second character: link, 1/A/a is 1, 0/B/b is 2; third: memory, 1/A/a or 0/B/b");
}

void add_bus(CLI::App& app, command_line& line)
{
    bus_options& o = line.bus;
    CLI::App& bus = add_group(app, "bus", "Move a block of up to 64 MiB between a file and card memory");
    CLI::App& read = add_command(bus, "read", "Card memory into FILE", bus_read_footer, line.chosen, [&line] {
        check_space(line.bus.addr, line.bus.len);
        line.answer = run_bus_read(line.bus);
    });
    CLI::App& write = add_command(bus, "write", "FILE into card memory", bus_write_footer, line.chosen,
                                  [&line] { line.answer = run_bus_write(line.bus); });
    for (CLI::App* const command : {&read, &write}) {
        add_number(*command, "LINK", "", o.link, "0 to 2", 0, MAX_ETH - 1);
        add_number(*command, "ADDR", "", o.addr, "Card memory address, in bytes");
        if (command == &read) { add_number(read, "LEN", "", o.len, "Bytes to read, 1 to 67108864", 1, bus_block_max); }
        add_text(*command, "FILE", "", o.file, "The block");
    }
}

void add_commands(CLI::App& app, command_line& line)
{
    add_fpga(app, line);
    add_picture(app, line);
    add_command(app, "lvds", "Wait for a good LVDS status on link 0, record it, reboot", "", line.chosen, [&line] {
        if (line.reboot) { run_lvds(); }
        fail(problem::wrong_usage, "lvds reboots this machine at the first good status: give --reboot if it may");
    }).add_flag("--reboot", line.reboot, "Yes, reboot this machine");
    add_bus(app, line);
    add_command(app, "usage", "Print the usage of fpga in the system's own words", "", line.chosen, usage);
}

int run_command_line(int argc, char** argv)
{
    command_line line;
    CLI::App app{about, "rvkdiag"};
    set_up(app, footer);
    app.add_flag("-v,--verbose", line.verbose, "Show on standard error what the link says meanwhile");
    add_commands(app, line);
    return run_app(app, argc, argv, [&line] {
        if (line.verbose) { show_log(); }
        line.chosen.run();
        write_out(line.answer);
    });
}

} // namespace
} // namespace rvk::diag

// A link's socket with a standard stream's number would send what is printed to the cards.
int main(int argc, char** argv)
{
    rvk::prepare_descriptors(O_RDONLY);
    return rvk::tool::run_tool("rvkdiag", [=] { return rvk::diag::run_command_line(argc, argv); });
}
