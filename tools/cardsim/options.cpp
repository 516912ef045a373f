#include "cardsim/options.h"

#include "cardsim/replies.h"
#include "eth_raw/registers.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <set>

namespace rvk {
namespace {

constexpr const char* description =
    "Simulates the cards at the far end of one or more card links: every (model, slot) is there, with 4 GiB of memory\n"
    "that reads as 0 until it is written, and behind certain addresses with picture memory, its read-back, and "
    "firmware\n"
    "memory. Prints \"ready\" when its links are open, and what it saw when it ends (SIGINT, SIGTERM). Run it inside\n"
    "scripts/in-bench, which makes the links card0, card1 and card2.";

constexpr const char* places =
    "Where pictures lie: buffer N begins at address N x 0x1000000 of a read-back (rvkctl picture get --addr): buffer "
    "16\n"
    "at 0x10000000, buffer 0 at 0. Each has 128 MiB, room for 7680 x 4320; a larger picture is refused. Its lines, "
    "the\n"
    "first one first, are padded to 64 bytes and laid out 1400 bytes to each 1408, as read-backs take them: the "
    "picture\n"
    "that was put is the one got.\n"
    "The picture loader's memories 0 and 1 (data ports 0xB0000 and 0xF0000) and the memory of bus blocks, one per "
    "link,\n"
    "lie apart from all that.\n"
    "What a card would refuse (order, sizes, checksums) is answered with status 1, not carried out, and named at the "
    "end.\n"
    "\n";

constexpr const char* fault_semantics =
    "A fault's HOW is a whole number, the next so many chances (3), or a part of all chances with a point in it\n"
    "(0.05: one in twenty; 1.0: all). Each link has chances of its own; which of them are taken depends on --seed, "
    "the\n"
    "fault and the number of the chance, so the same seed brings the same faults again. Faults are decided in the "
    "order\n"
    "listed, each on its own; of the four that change what a read is answered with (of either protocol), and of the "
    "three\n"
    "that change len, the first excludes the rest. An answer is the reply to a read or an acknowledged write; plain "
    "writes have none.\n"
    "\n"
    "Exit status: 0 ended by a signal; 1 a link could not be opened or a file not be written; 2 wrong usage.";

constexpr const char* registers_group = "Registers";

// A range check that adds no text of its own to the help.
CLI::Validator between(size_t least, size_t most) { return CLI::Range(least, most).description(""); }

void add_faults(CLI::App& app, card_faults& faults)
{
    const std::string group = "Faults";
    app.add_option("--seed", faults.seed, "of the dice")->group(group)->capture_default_str();
    for (const fault_row& row : fault_table()) {
        const std::string name = std::string("--") + row.name;
        const auto take = [&faults, &row, name](const std::string& text) {
            const auto how_often = parse_occurrence(text);
            if (!how_often) {
                throw CLI::ValidationError(name, "'" + text + "' is neither a whole number (the next so many) nor a " +
                                                     "part of all from 0.0 to 1.0, with its point");
            }
            faults.*row.how_often = *how_often;
        };
        app.add_option_function<std::string>(name, take, row.meaning)->type_name("HOW")->group(group);
    }
    const auto take_status = [&faults](unsigned status) { faults.wrong_status = static_cast<uint8_t>(status); };
    app.add_option_function<unsigned>("--wrong-status", take_status, // not into the byte itself: it would read a letter
                                      "status of --wrong-ack and --wrong-read, 0 to 255 [2]")
        ->check(between(0, 255))
        ->group(group);
    app.add_option("--oversized-len", faults.oversized_len, "bytes that --read-oversized gives, 1401 to 2000")
        ->check(between(1401, reply_data_max))
        ->group(group)
        ->capture_default_str();
    app.add_option("--delay-ms", faults.delay_ms, "how late --delay is, at most 60000")
        ->check(between(0, 60000))
        ->group(group)
        ->capture_default_str();
}

// A number that fits a byte; not read into the byte itself, which would take a letter.
void add_byte(CLI::App& app, const char* name, std::optional<uint8_t>& into, const char* meaning)
{
    const auto take = [&into](unsigned value) { into = static_cast<uint8_t>(value); };
    app.add_option_function<unsigned>(name, take, meaning)
        ->type_name("BYTE")
        ->check(between(0, 255))
        ->group(registers_group);
}

template <typename Value>
void add_number(CLI::App& app, const char* name, Value& into, const char* meaning, size_t least, size_t most)
{
    app.add_option(name, into, meaning)->type_name("N")->check(between(least, most))->group(registers_group);
}

void add_behaviour(CLI::App& app, card_behaviour& behaviour)
{
    constexpr size_t pieces_max = 1u << 22; // of 1,024 bytes: all that 32 bits count
    add_byte(app, "--generation", behaviour.generation,
             "the input card's generation (0x10000015 of slot 2): 0 old, 1 new, odd others [0]");
    add_number(app, "--generation-bytes", behaviour.generation_bytes, "bytes that it answers with, in place of one", 1,
               reply_data_max);
    add_byte(app, "--readiness", behaviour.readiness,
             "the FPGA's readiness (0x00F00009 of slot 1); 255: never ready [0]");
    add_number(app, "--readiness-bytes", behaviour.readiness_bytes, "bytes that it answers with, in place of one", 1,
               reply_data_max);
    app.add_flag("--readiness-silent", behaviour.readiness_silent, "its reads are not answered")
        ->group(registers_group);
    add_number(app, "--status-bytes", behaviour.status_bytes,
               "bytes that the status of a read-back (0xA0FFD) answers with, in place of one", 1, reply_data_max);
    const auto take_lvds = [&behaviour](uint64_t reads) { behaviour.lvds_wrong_reads = reads; };
    app.add_option_function<uint64_t>("--lvds-wrong-reads", take_lvds,
                                      "reads of the LVDS status (0x30082 of slot 1) that get a wrong one, before the "
                                      "good one [its memory]")
        ->type_name("N")
        ->check(between(0, 1'000'000))
        ->group(registers_group);
    app.add_flag("--bus-responds", behaviour.bus_responds, "answer bus-block writes with a response")
        ->group(registers_group);
    add_number(app, "--refuse-register", behaviour.refuse_register,
               "refuse the N-th register of a firmware transfer's file information", 1, firmware_registers.size());
    add_number(app, "--refuse-register-times", behaviour.refuse_register_times, "so many times [1]", 1, 1'000'000);
    add_number(app, "--refuse-piece", behaviour.refuse_piece, "refuse the N-th piece of a firmware transfer", 1,
               pieces_max);
    add_number(app, "--refuse-piece-times", behaviour.refuse_piece_times, "so many times [1]", 1, 1'000'000);
    add_number(app, "--silent-piece", behaviour.silent_piece,
               "neither take nor answer the N-th piece of a firmware transfer", 1, pieces_max);
}

void add_options(CLI::App& app, cardsim_options& options)
{
    app.add_option("--link", options.links, "an interface to answer on; may be repeated")
        ->type_name("IFACE")
        ->capture_default_str();
    app.add_option("--state", options.state_folder,
                   "on SIGUSR1 and at the end, write what the cards hold below this folder: a text file per card,\n"
                   "pictures as BMP, firmware images as they were before their head")
        ->type_name("DIR");
    const auto take_loaded = [&options](const std::vector<std::string>& texts) {
        for (const std::string& text : texts) {
            const auto picture = parse_loaded(text);
            if (!picture) {
                throw CLI::ValidationError("--loaded",
                                           "'" + text + "' is not MEMORY:ADDR:WxH, as in 1:0x2000:1920x1080");
            }
            options.loaded.push_back(*picture);
        }
    };
    app.add_option_function<std::vector<std::string>>(
           "--loaded", take_loaded,
           "with --state, also write what the picture loader put into memory 0 or 1, at this address of its own,\n"
           "as a picture of this size, which cards are not told (MEMORY:ADDR:WxH, 0:0x2000:1920x1080); may be repeated")
        ->type_name("PICTURE");
    app.add_option("--pcap", options.pcap_folder, "at the end, write the last frames of each link to DIR/LINK.pcap")
        ->type_name("DIR");
    app.add_option("--pcap-frames", options.pcap_frames, "how many frames that is, at most 1000000")
        ->check(between(1, 1'000'000))
        ->capture_default_str();
    app.add_option("--processor", options.processor, "pin the links' threads to this processor, 1 to 3")
        ->type_name("N")
        ->check(between(1, 3));
    app.add_option("--priority", options.priority, "run them at this real-time priority (SCHED_FIFO), 1 to 99")
        ->type_name("N")
        ->check(between(1, 99));
    add_behaviour(app, options.behaviour);
    add_faults(app, options.faults);
}

} // namespace

std::optional<occurrence> parse_occurrence(const std::string& text)
{
    const char* end = text.data() + text.size();
    if (text.find('.') == std::string::npos) {
        uint64_t count = 0;
        const auto [rest, error] = std::from_chars(text.data(), end, count);
        if (error != std::errc{} || rest != end) { return std::nullopt; }
        return occurrence(count);
    }
    double part = 0;
    const auto [rest, error] = std::from_chars(text.data(), end, part);
    if (error != std::errc{} || rest != end || !(part >= 0 && part <= 1)) { return std::nullopt; }
    return occurrence(part);
}

std::optional<loaded_picture> parse_loaded(const std::string& text)
{
    loaded_picture p;
    const char* at = text.data();
    const char* const end = at + text.size();
    const auto take = [&](auto& value, int base, const char* behind) {
        const auto [rest, error] = std::from_chars(at, end, value, base);
        const bool ends = behind == nullptr ? rest == end : rest != end && *rest == *behind;
        at = rest + (behind == nullptr ? 0 : 1);
        return error == std::errc{} && ends;
    };
    const auto take_addr = [&] {
        const bool hexadecimal = end - at > 2 && at[0] == '0' && (at[1] | 0x20) == 'x';
        at += hexadecimal ? 2 : 0;
        return take(p.addr, hexadecimal ? 16 : 10, ":");
    };
    if (!take(p.memory, 10, ":") || !take_addr() || !take(p.hor, 10, "x") || !take(p.ver, 10, nullptr)) { return {}; }
    return p.memory < loader_memories.size() && p.hor > 0 && p.ver > 0 ? std::optional(p) : std::nullopt;
}

parsed_options parse_options(int argc, const char* const* argv)
{
    cardsim_options options;
    CLI::App app{description, "rvk-cardsim"};
    app.footer(std::string(places) + fault_semantics);
    add_options(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        return {{}, 0, app.help()};
    } catch (const CLI::ParseError& error) {
        return {{}, 2, std::string("rvk-cardsim: ") + error.what() + " (--help lists the options)\n"};
    }
    const std::set<std::string> different(options.links.begin(), options.links.end());
    if (different.size() != options.links.size()) {
        return {{}, 2, "rvk-cardsim: --link: the same interface is named twice\n"};
    }
    return {std::move(options), 0, {}};
}

} // namespace rvk
