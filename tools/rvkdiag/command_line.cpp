// See the header. CLI11 knows the shape; numbers, bytes and files are the tools' own, so that each refusal names the
// argument, its value and what to give instead. Everything is understood before anything is opened.
#include "rvkdiag/command_line.h"

#include "base/card_links.h"
#include "command/values.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/frame.h"
#include "main/reg.h"
#include "rvkdiag/commands.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <exception>
#include <functional>

namespace rvk::diag {
namespace {

using namespace tool;

constexpr char about[] =
    "Works on a card link directly, with no daemon on it: peek and poke, pictures, LVDS test, bus blocks.";

constexpr char footer[] =
    R"(Commands:
  fpga ID read|readw MODEL SLOT ADDR LEN
  fpga ID write|writea|writeaw MODEL SLOT ADDR VALUE|FILENAME
  picture ADDR WxH FILE TS_SEL FPGA_SEL
  lvds --reboot
  bus read LINK ADDR LEN FILE
  bus write LINK ADDR FILE
  usage

Numbers of fpga are hexadecimal, those of the other commands decimal or 0x… . ID and LINK are 0, 1 or 2: eth0 to eth2.
VALUE is hex digits in memory order, in pairs; what is not hex digits alone is a FILENAME (./cafe names a file).

What "done" means:
  fpga read    the card sent LEN bytes; asked up to three times. readw asks once and waits longer.
  fpga write   the frames were sent. Nobody knows what the card did with them.
  fpga writea  the card acknowledged every frame; each is sent up to three times, all without waiting.
  fpga writeaw the card acknowledged every frame, each before the next was sent.
  picture      the frames were sent; they are not acknowledged. What FILE has too little for WxH is zero.
  bus read     the whole block came, in packets of up to 8026 bytes (MTU 9000 at both ends), and is in FILE.
  bus write    the packets were sent; they are not acknowledged.

While a daemon is alive nothing works on link 0 here: each would take the other's answers.

Exit status:
  0  done
  1  the card refused, or sent less than was asked for
  2  wrong usage, a file of yours that cannot be used, or a daemon on link 0
  3  no answer, or no way to the card: no such link, link down, no permission

Examples:
  rvkdiag fpga 0 readw 0 2 10000 10
  rvkdiag fpga 1 writeaw 3 2 10000 "01 00 00 80"
  rvkdiag fpga 0 writea 0 2 20000 table.bin
  rvkdiag picture 0x1000 1920x1080 card.bmp ee e10
  rvkdiag bus read 1 0x20000 65536 block.bin
)";

// What the arguments hold before they are understood.
struct raw_text {
    std::string link, kind, model, slot, addr, last, size, file, ts_sel, fpga_sel;
    bool reboot = false;
};

using command_run = std::function<std::string()>;
using understand = std::function<command_run()>; // throws a failure of wrong usage

access kind_in(const std::string& text)
{
    static constexpr struct {
        const char* name;
        access kind;
    } kinds[] = {{"read", access::read},
                 {"readw", access::read_wait},
                 {"write", access::write},
                 {"writea", access::write_ack},
                 {"writeaw", access::write_ack_wait}};
    for (const auto& row : kinds) {
        if (text == row.name) { return row.kind; }
    }
    throw failure{problem::wrong_usage, "KIND \"" + text + "\": give read, readw, write, writea or writeaw"};
}

bool is_read(access kind) { return kind == access::read || kind == access::read_wait; }

std::vector<uint8_t> value_or_file(const std::string& text, uint64_t most)
{
    const bool value = std::all_of(text.begin(), text.end(),
                                   [](unsigned char c) { return std::isxdigit(c) != 0 || c == ' ' || c == '\t'; });
    if (value) { return bytes_of_hex("VALUE", {text}); }
    try {
        return bytes_of_file(text, most);
    } catch (failure& failed) {
        failed.text = "VALUE \"" + text + "\" is not hex digits alone, so it names a file: " + failed.text;
        throw;
    }
}

fpga_options fpga_options_of(const raw_text& raw)
{
    fpga_options out;
    out.link = static_cast<int>(hex_number_in("ID", raw.link, 0, MAX_ETH - 1));
    out.kind = kind_in(raw.kind);
    out.model = static_cast<uint16_t>(hex_number_in("MODEL", raw.model, 0, UINT16_MAX));
    out.slot = static_cast<uint8_t>(hex_number_in("SLOT", raw.slot, 0, UINT8_MAX));
    out.addr = static_cast<uint32_t>(hex_number_in("ADDR", raw.addr, 0, UINT32_MAX));
    if (is_read(out.kind)) {
        out.len = static_cast<uint16_t>(hex_number_in("LEN", raw.last, 1, frame_data_max));
        check_room(out.addr, out.len);
    } else {
        out.bytes = value_or_file(raw.last, room_from(out.addr));
        check_room(out.addr, out.bytes.size());
    }
    return out;
}

picture_options picture_options_of(const raw_text& raw)
{
    const picture_size size = size_in("WxH", raw.size, 1);
    return {static_cast<uint32_t>(number_in("ADDR", raw.addr, 0, UINT32_MAX)),
            size.hor,
            size.ver,
            raw.file,
            raw.ts_sel,
            raw.fpga_sel};
}

bus_options bus_options_of(const raw_text& raw, bool reads)
{
    bus_options out;
    out.link = static_cast<int>(number_in("LINK", raw.link, 0, MAX_ETH - 1));
    out.addr = static_cast<uint32_t>(number_in("ADDR", raw.addr, 0, UINT32_MAX));
    out.file = raw.file;
    if (reads) {
        out.len = static_cast<uint32_t>(number_in("LEN", raw.last, 1, bus_block_max));
        check_room(out.addr, out.len);
        return out;
    }
    out.bytes = bytes_of_file(raw.file, bus_block_max);
    if (out.bytes.size() > bus_block_max) {
        throw failure{problem::wrong_usage, format("file \"%s\" is larger than a block, which has at most %u bytes",
                                                   raw.file.c_str(), bus_block_max)};
    }
    check_room(out.addr, out.bytes.size());
    return out;
}

command_run lvds_of(const raw_text& raw)
{
    if (raw.reboot) {
        return []() -> std::string { run_lvds(); };
    }
    throw failure{problem::wrong_usage, "lvds reboots this machine at the first good status: give --reboot if it may"};
}

// A command of its own, chosen when it stands on the command line.
CLI::App* add_command(CLI::App& parent, const char* name, const char* what, understand& choice, understand meaning)
{
    CLI::App* command = parent.add_subcommand(name, what);
    command->callback([&choice, meaning = std::move(meaning)] { choice = meaning; });
    return command;
}

struct argument {
    const char* name;
    std::string& into;
    const char* what;
};
void add_arguments(CLI::App& command, std::initializer_list<argument> arguments)
{
    for (const argument& a : arguments) { command.add_option(a.name, a.into, a.what)->required()->type_name(""); }
}

void add_fpga(CLI::App& app, raw_text& raw, understand& choice)
{
    CLI::App* fpga = add_command(app, "fpga", "Read or write card registers; all numbers hexadecimal", choice,
                                 [&raw] { return [options = fpga_options_of(raw)] { return run_fpga(options); }; });
    add_arguments(*fpga,
                  {{"ID", raw.link, "Link, 0 to 2"},
                   {"KIND", raw.kind, "read, readw; write (plain), writea (acknowledged), writeaw (and waited for)"},
                   {"MODEL", raw.model, "Card model, 0 to ffff"},
                   {"SLOT", raw.slot, "Card slot, 0 to ff"},
                   {"ADDR", raw.addr, "Register or memory address, 32 bits"},
                   {"LEN|VALUE|FILENAME", raw.last, "Bytes to read, 1 to 578; or what to write"}});
}

void add_picture(CLI::App& app, raw_text& raw, understand& choice)
{
    CLI::App* picture = add_command(app, "picture", "Load a picture into a memory behind link 1 or 2", choice, [&raw] {
        return [options = picture_options_of(raw)] { return run_picture(options); };
    });
    add_arguments(*picture, {{"ADDR", raw.addr, "Card memory address, in units of 8 bytes"},
                             {"WxH", raw.size, "Width and height in pixels"},
                             {"FILE", raw.file, "A .bmp of 24 bits a pixel; any other file as card pixels of 4 bytes"},
                             {"TS_SEL", raw.ts_sel, "Its second character is e"},
                             {"FPGA_SEL", raw.fpga_sel,
                              "Second character: link, 1/A/a is 1, 0/B/b is 2; third: memory, 1/A/a or 0/B/b"}});
}

void add_bus(CLI::App& app, raw_text& raw, understand& choice)
{
    CLI::App* bus = app.add_subcommand("bus", "Move a block of up to 64 MiB between a file and card memory");
    bus->require_subcommand(0, 1); // as above
    CLI::App* read = add_command(*bus, "read", "Card memory into FILE", choice, [&raw] {
        return [options = bus_options_of(raw, true)] { return run_bus_read(options); };
    });
    CLI::App* write = add_command(*bus, "write", "FILE into card memory", choice, [&raw] {
        return [options = bus_options_of(raw, false)] { return run_bus_write(options); };
    });
    const argument link{"LINK", raw.link, "0 to 2"}, addr{"ADDR", raw.addr, "Card memory address, in bytes"};
    const argument file{"FILE", raw.file, "The block"};
    add_arguments(*read, {link, addr, {"LEN", raw.last, "Bytes to read, 1 to 67108864"}, file});
    add_arguments(*write, {link, addr, file});
}

void add_commands(CLI::App& app, raw_text& raw, understand& choice)
{
    add_fpga(app, raw, choice);
    add_picture(app, raw, choice);
    CLI::App* lvds = add_command(app, "lvds", "Wait for a good LVDS status on link 0, record it, reboot", choice,
                                 [&raw] { return lvds_of(raw); });
    lvds->add_flag("--reboot", raw.reboot, "Yes, reboot this machine");
    add_bus(app, raw, choice);
    add_command(app, "usage", "Print the usage of fpga in the system's own words", choice, [] {
        return []() -> std::string {
            usage();
            return "";
        };
    });
}

// What the command line asks for: a command, or its help, whose text is the answer.
command_run parse(int argc, char** argv)
{
    CLI::App app{about, "rvkdiag"};
    raw_text raw;
    understand choice;
    app.footer(footer);
    app.require_subcommand(0, 1); // none is refused below: CLI11 would not say which word it did not know
    add_commands(app, raw, choice);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return [help = app.help()] { return help; };
    } catch (const CLI::ParseError& error) {
        throw failure{problem::wrong_usage, std::string(error.what()) + "; see rvkdiag --help"};
    }
    if (choice) { return choice(); }
    throw failure{problem::wrong_usage,
                  "no command given: one of fpga, picture, lvds, bus read, bus write, usage; see rvkdiag --help"};
}

int present(const failure& failed)
{
    fflush(stdout);
    fprintf(stderr, "rvkdiag: %s\n", failed.text.c_str());
    return status_of(failed.what);
}

} // namespace

int run_command_line(int argc, char** argv)
{
    try {
        if (write_out(parse(argc, argv)())) { return exit_done; }
        return present({problem::wrong_usage,
                        std::string("the answer could not be written to standard output: ") + strerror(errno)});
    } catch (const failure& failed) {
        return present(failed);
    } catch (const std::exception& error) { // no memory
        return present({problem::wrong_usage, error.what()});
    }
}

} // namespace rvk::diag
