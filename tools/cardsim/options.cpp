#include "cardsim/options.h"

#include "cardsim/replies.h"

#include <CLI/CLI.hpp>
#include <charconv>
#include <set>

namespace rvk {
namespace {

constexpr const char* description =
    "Simulates the cards at the far end of one or more card links: every (model, slot) is there, with 4 GiB of memory\n"
    "that reads as 0 until it is written. Prints \"ready\" when its links are open, and what it saw when it ends\n"
    "(SIGINT, SIGTERM). Run it inside scripts/in-bench, which makes the links card0, card1 and card2.";

constexpr const char* fault_semantics =
    "A fault's HOW is a whole number, the next so many chances (3), or a part of all chances with a point in it\n"
    "(0.05: one in twenty; 1.0: all). Each link has chances of its own; which of them are taken depends on --seed, "
    "the\n"
    "fault and the number of the chance, so the same seed brings the same faults again. Faults are decided in the "
    "order\n"
    "listed, each on its own; of the four that change what a read is answered with, and of the three that change len,\n"
    "the first excludes the rest. An answer is the reply to a read or an acknowledged write; plain writes have none.\n"
    "\n"
    "Exit status: 0 ended by a signal; 1 a link could not be opened or a file not be written; 2 wrong usage.";

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

void add_options(CLI::App& app, cardsim_options& options)
{
    app.add_option("--link", options.links, "an interface to answer on; may be repeated")
        ->type_name("IFACE")
        ->capture_default_str();
    app.add_option("--state", options.state_folder,
                   "on SIGUSR1 and at the end, write what the cards hold below this folder: a text file per card")
        ->type_name("DIR");
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

parsed_options parse_options(int argc, const char* const* argv)
{
    cardsim_options options;
    CLI::App app{description, "rvk-cardsim"};
    app.footer(fault_semantics);
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
