// See the header. CLI11 knows the shape; numbers and bytes are ours, so that each refusal names the value and its
// range.
#include "rvkctl/subcommands.h"

#include "command/values.h"
#include "eth_raw/frame.h"

#include <CLI/CLI.hpp>

namespace rvk::ctl {
namespace {

constexpr uint64_t buffer_max = UINT8_MAX; // card: what its control block has room for
constexpr uint64_t longest_interval_ms = 24ull * 3600 * 1000;

void add_card_options(CLI::App& command, raw_text& raw)
{
    command.add_option("SLOT", raw.slot, "Card slot, 0 to 255")->required()->type_name("");
    command.add_option("ADDR", raw.addr, "Register or memory address, 32 bits")->required()->type_name("");
    command.add_option("--model", raw.model, "Card model, 0 to 65535; default 0")->type_name("M");
}

std::optional<repetition> repetition_of(const raw_text& raw)
{
    if (raw.repeat.empty()) {
        if (raw.interval.empty() && !raw.all) { return std::nullopt; }
        throw failure{problem::wrong_usage, std::string(raw.all ? "--all" : "--interval") +
                                                " is for reads that are repeated: give --repeat N too"};
    }
    if (!raw.file.empty()) {
        throw failure{problem::wrong_usage, "--out and --repeat: a read that is repeated is shown; leave one out"};
    }
    repetition out;
    out.times = number_in("--repeat", raw.repeat, 0, UINT32_MAX);
    out.all = raw.all;
    if (raw.interval.empty()) { return out; }
    out.interval = std::chrono::milliseconds{number_in("--interval", raw.interval, 1, longest_interval_ms)};
    return out;
}

read_options read_options_of(const raw_text& raw)
{
    read_options out;
    out.slot = static_cast<uint8_t>(number_in("SLOT", raw.slot, 0, UINT8_MAX));
    out.addr = static_cast<uint32_t>(number_in("ADDR", raw.addr, 0, UINT32_MAX));
    out.len = static_cast<uint16_t>(number_in("LEN", raw.len, 1, frame_data_max));
    out.model = static_cast<uint16_t>(number_in("--model", raw.model, 0, UINT16_MAX));
    out.out_file = raw.file;
    out.repeat = repetition_of(raw);
    return out;
}

write_options write_options_of(const raw_text& raw)
{
    if (raw.bytes.empty() == raw.file.empty()) {
        throw failure{problem::wrong_usage, "write needs either BYTES or --file FILE, and not both"};
    }
    write_options out;
    out.no_ack = raw.no_ack;
    out.verify = raw.verify;
    out.slot = static_cast<uint8_t>(number_in("SLOT", raw.slot, 0, UINT8_MAX));
    out.addr = static_cast<uint32_t>(number_in("ADDR", raw.addr, 0, UINT32_MAX));
    out.model = static_cast<uint16_t>(number_in("--model", raw.model, 0, UINT16_MAX));
    out.bytes = raw.file.empty() ? bytes_of_hex("BYTES", raw.bytes) : bytes_of_file(raw.file, room_from(out.addr));
    check_room(out.addr, out.bytes.size());
    return out;
}

picture_options picture_options_of(const raw_text& raw, const char* where_name, uint64_t where_max)
{
    picture_options out;
    out.slot = static_cast<uint8_t>(number_in("--slot", raw.slot.empty() ? "1" : raw.slot, 0, UINT8_MAX));
    out.model = static_cast<uint16_t>(number_in("--model", raw.model, 0, UINT16_MAX));
    out.where = static_cast<uint32_t>(number_in(where_name, raw.where, 0, where_max));
    const picture_size size = size_in("--size", raw.size, 0);
    out.hor = size.hor;
    out.ver = size.ver;
    out.file = raw.file;
    return out;
}

picture_options put_options_of(const raw_text& raw)
{
    if (raw.verify && raw.addr.empty()) {
        throw failure{problem::wrong_usage,
                      "--verify of a put needs --addr A, where the buffer begins in card memory, in "
                      "words of 8 bytes: no rule leads there from its number"};
    }
    if (!raw.verify && !raw.addr.empty()) {
        throw failure{problem::wrong_usage,
                      "--addr \"" + raw.addr +
                          "\" is for --verify alone: a put goes into the buffer that --buffer names"};
    }
    picture_options out = picture_options_of(raw, "--buffer", buffer_max);
    if (raw.verify) { out.verify_at = static_cast<uint32_t>(number_in("--addr", raw.addr, 0, UINT32_MAX)); }
    return out;
}

update_options update_options_of(const raw_text& raw)
{
    update_options out;
    out.slot = static_cast<uint8_t>(number_in("--slot", raw.slot, 0, UINT8_MAX));
    out.model = static_cast<uint16_t>(number_in("--model", raw.model, 0, UINT16_MAX));
    out.type = update_type_in(raw.type);
    out.file = raw.file;
    return out;
}

// A command of its own, chosen when it stands on the command line.
CLI::App* add_command(CLI::App& parent, const char* name, const char* about, const std::string& whole_name,
                      chosen& choice, std::function<command_run()> understand)
{
    CLI::App* command = parent.add_subcommand(name, about);
    command->callback([&choice, whole_name, understand = std::move(understand)] {
        choice.command = whole_name;
        choice.understand = understand;
    });
    return command;
}

void add_read(CLI::App& app, raw_text& raw, chosen& choice)
{
    CLI::App* read = add_command(app, "read", "Read from a card and show the bytes", "read", choice, [&raw] {
        return [options = read_options_of(raw)](const settings& used, outcome& run) { run_read(used, options, run); };
    });
    add_card_options(*read, raw);
    read->add_option("LEN", raw.len, "Bytes to read, 1 to 1400")->required()->type_name("");
    read->add_option("--out", raw.file, "Put the bytes into FILE instead of showing them")->type_name("FILE");
    read->add_option("--repeat", raw.repeat,
                     "Read N times, 0: until a signal ends it, and show what is new, with its time")
        ->type_name("N");
    read->add_option("--interval", raw.interval, "From one repeated read to the next, in ms; default 1000")
        ->type_name("MS");
    read->add_flag("--all", raw.all, "Show every repeated read, not only what is new");
}

void add_write(CLI::App& app, raw_text& raw, chosen& choice)
{
    CLI::App* write = add_command(app, "write", "Write to a card", "write", choice, [&raw] {
        return [options = write_options_of(raw)](const settings& used, outcome& run) { run_write(used, options, run); };
    });
    add_card_options(*write, raw);
    write->add_option("BYTES", raw.bytes, "Hex digits in memory order, blanks allowed between bytes")->type_name("");
    write->add_option("--file", raw.file, "Write what FILE holds")->type_name("FILE");
    write->add_flag("--no-ack", raw.no_ack, "Do not ask the card for an acknowledgement");
    write->add_flag("--verify", raw.verify, "Read it back and compare; status 1 when it differs");
}

void add_model(CLI::App& command, raw_text& raw)
{
    command.add_option("--model", raw.model, "Card model, 0 to 65535; default 0")->type_name("M");
}

void add_picture(CLI::App& app, raw_text& raw, chosen& choice)
{
    CLI::App* picture = app.add_subcommand("picture", "Move a picture between a file and a card's memory");
    picture->require_subcommand(0, 1); // as above: none is refused elsewhere
    picture->fallthrough();
    CLI::App* put = add_command(*picture, "put", "Write a picture file into a card's picture buffer", "picture put",
                                choice, [&raw] {
                                    return [options = put_options_of(raw)](const settings& used, outcome& run) {
                                        run_picture_put(used, options, run);
                                    };
                                });
    put->add_option("FILE", raw.file, "4 bytes a pixel as they stand; of a .bmp from its pixels on")
        ->required()
        ->type_name("");
    put->add_option("--buffer", raw.where,
                    "Number of the card's picture buffer, 0 to 255; those of the demo are 16 to 24")
        ->required()
        ->type_name("N");
    put->add_flag("--verify", raw.verify, "Read it back from --addr and compare; status 1 when it differs");
    put->add_option("--addr", raw.addr, "Where the buffer begins in card memory, in words of 8 bytes, for --verify")
        ->type_name("A");
    CLI::App* get =
        add_command(*picture, "get", "Read card memory into BASE and BASE.bmp", "picture get", choice, [&raw] {
            return [options = picture_options_of(raw, "--addr", UINT32_MAX)](const settings& used, outcome& run) {
                run_picture_get(used, options, run);
            };
        });
    get->add_option("BASE", raw.file, "Raw file; the image's name is this with .bmp")->required()->type_name("");
    get->add_option("--addr", raw.where, "Start in card memory, in words of 8 bytes")->required()->type_name("A");
    for (CLI::App* command : {put, get}) {
        command->add_option("--size", raw.size, "Width and height in pixels")->required()->type_name("WxH");
        command->add_option("--slot", raw.slot, "Card slot, 0 to 255; default 1")->type_name("S");
        add_model(*command, raw);
    }
}

void add_update(CLI::App& app, raw_text& raw, chosen& choice)
{
    CLI::App* update = add_command(app, "update", "Update a card's firmware", "update", choice, [&raw] {
        return
            [options = update_options_of(raw)](const settings& used, outcome& run) { run_update(used, options, run); };
    });
    update->add_option("FILE", raw.file, "The image")->required()->type_name("");
    update->add_option("--type", raw.type, "Kind of image: " + update_type_names())->required()->type_name("TYPE");
    update->add_option("--slot", raw.slot, "Card slot, 0 to 255")->required()->type_name("S");
    add_model(*update, raw);
}

void add_status(CLI::App& app, raw_text& raw, chosen& choice)
{
    CLI::App* status =
        add_command(app, "status", "Show how the daemon is doing, without asking it", "status", choice, [&raw] {
            return [options = status_options{raw.watch}](const settings& used, outcome& run) {
                run_status(used, options, run);
            };
        });
    status->add_flag("--watch", raw.watch, "Each second, with rates, until a signal ends it");
}

} // namespace

void add_subcommands(CLI::App& app, raw_text& raw, chosen& choice)
{
    add_command(app, "hello", "Ask the daemon whether it is there", "hello", choice, [] { return run_hello; });
    add_read(app, raw, choice);
    add_write(app, raw, choice);
    add_picture(app, raw, choice);
    add_update(app, raw, choice);
    add_status(app, raw, choice);
}

} // namespace rvk::ctl
