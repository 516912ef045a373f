// rvk-cardsim: cards for everyone who has none. Opens the interfaces it is given, serves them with a thread each, and
// waits for signals on the main thread: SIGUSR1 saves; SIGINT, SIGTERM and SIGHUP end it.
#include "base/fd.h"
#include "cardsim/link.h"
#include "cardsim/state.h"
#include "command/options.h"

#include <algorithm>
#include <charconv>
#include <cinttypes>
#include <csignal>
#include <fcntl.h>
#include <list>
#include <set>

namespace rvk {
namespace {

using tool::add_number, tool::failure, tool::problem;

constexpr char about[] =
    R"(Simulates the cards at the far end of one or more card links: every (model, slot) is there, with 4 GiB of memory
that reads as 0 until it is written, and behind certain addresses with picture memory, its read-back, and firmware
memory. Prints "ready" when its links are open, and what it saw when it ends (SIGINT, SIGTERM, SIGHUP). Run it inside
scripts/in-bench, which makes the links card0, card1 and card2.)";

constexpr char footer[] =
    R"(Buffer N begins at address N x 0x1000000 of a read-back (rvkctl picture get --addr). A frame that no
controller should send is not answered; what a card would refuse of a good one (order, sizes, a firmware head's
checksum) is answered with status 1. Neither is carried out, and both are named at the end.

A fault's HOW is a whole number, the next so many chances (3), or a part of all chances with a point in it
(0.05: one in twenty; 1.0: all). Each link has chances of its own; which of them are taken depends on --seed, the
fault and the number of the chance, so the same seed brings the same faults again. Faults are decided in the order
listed, each on its own; of those that change what a read is answered with, and of the three
that change len, the first excludes the rest. An answer is the reply to a read or an acknowledged write; plain writes
have none.

Exit status: 0 ended by a signal; 1 a link could not be opened, a file not be written, or memory lacked; 2 wrong usage.)";

struct cardsim_options {
    std::vector<std::string> links{"card0"};
    std::string state_folder;  // empty: nothing is written
    std::string pcap_folder;   // empty: no frames are kept
    size_t pcap_frames = 1000; // of each link
    link_options how{};        // of each
    card_faults faults;
};

// "3": the next three; "0.05" or "1.0": this part of all.
occurrence occurrence_in(const std::string& option, const std::string& text)
{
    occurrence how_often;
    const char* end = text.data() + text.size();
    const auto [rest, error] = text.find('.') == std::string::npos ? std::from_chars(text.data(), end, how_often.next)
                                                                   : std::from_chars(text.data(), end, how_often.part);
    if (error == std::errc{} && rest == end && how_often.part >= 0 && how_often.part <= 1) { return how_often; }
    tool::fail(problem::wrong_usage, "%s \"%s\": give a number of chances, as 3, or a part of all, as 0.05 or 1.0",
               option.c_str(), text.c_str());
}

void add_register_options(CLI::App& app, card_faults& f)
{
    app.option_defaults()->group("Registers");
    constexpr uint64_t times_max = 1'000'000, pieces_max = 1u << 22; // of 1,024 bytes: all that 32 bits count
    add_number(app, "--generation", "N", f.generation,
               "the input card's generation (0x10000015 of slot 2): 0 old, 1 new, odd others [0]");
    add_number(app, "--generation-bytes", "N", f.generation_bytes, "bytes that it answers with", 1, reply_data_max);
    add_number(app, "--readiness", "N", f.readiness,
               "the FPGA's readiness (0x00F00009 of slot 1); 255: never ready [0]");
    add_number(app, "--readiness-bytes", "N", f.readiness_bytes, "bytes that it answers with", 1, reply_data_max);
    app.add_flag("--readiness-silent", f.readiness_silent, "its reads are not answered");
    add_number(app, "--status-bytes", "N", f.status_bytes,
               "bytes that the status of a read-back (0xA0FFD) answers with", 1, reply_data_max);
    add_number(app, "--lvds-wrong-reads", "N", f.lvds_wrong_reads,
               "reads of the LVDS status (0x30082 of slot 1) that get a wrong one [its memory]", 0, times_max);
    add_number(app, "--refuse-register", "N", f.refuse_register,
               "refuse the N-th register of a firmware transfer's file information", 1, firmware_registers.size());
    add_number(app, "--refuse-register-times", "N", f.refuse_register_times, "so many times [1]", 1, times_max);
    add_number(app, "--refuse-piece", "N", f.refuse_piece, "refuse the N-th piece of a firmware transfer", 1,
               pieces_max);
    add_number(app, "--refuse-piece-times", "N", f.refuse_piece_times, "so many times [1]", 1, times_max);
    add_number(app, "--silent-piece", "N", f.silent_piece, "neither take nor answer the N-th such piece", 1,
               pieces_max);
}

void add_fault_options(CLI::App& app, card_faults& f)
{
#define RVK_ROW(name, help) help,
    static constexpr const char* helps[]{RVK_CHANCES(RVK_ROW)};
#undef RVK_ROW
    app.option_defaults()->group("Faults");
    add_number(app, "--seed", "N", f.seed, "of the dice [1]");
    for (size_t i = 0; i < chance_count; ++i) {
        std::string name = "--" + std::string(tool::enumerators<fault, fault_count>[i]);
        std::replace(name.begin(), name.end(), '_', '-');
        tool::add_value(app, name, "HOW", helps[i],
                        [&f, i, name](const std::string& text) { f.how_often[i] = occurrence_in(name, text); });
    }
    add_number(app, "--wrong-status", "N", f.wrong_status, "status of --wrong-ack, --wrong-read, --bus-refused [2]");
    add_number(app, "--delay-ms", "N", f.delay_ms, "how late --delay is, at most 60000 [120]", 0, 60'000);
}

void add_options(CLI::App& app, cardsim_options& o)
{
    app.add_option("--link", o.links, "an interface to answer on; may be repeated [card0]")->type_name("IFACE");
    tool::add_text(app, "--state", "DIR", o.state_folder,
                   "on SIGUSR1 and at the end, write what the cards hold below this folder: a text file per card,\n"
                   "pictures as BMP, firmware images as they were before their head");
    tool::add_text(app, "--pcap", "DIR", o.pcap_folder,
                   "at the end, write the last frames of each link to DIR/LINK.pcap");
    add_number(app, "--pcap-frames", "N", o.pcap_frames, "how many frames that is, at most 1000000 [1000]", 1,
               1'000'000);
    add_number(app, "--processor", "N", o.how.processor, "pin the links' threads to this processor, 1 to 3", 1, 3);
    add_number(app, "--priority", "N", o.how.priority, "run them at this real-time priority (SCHED_FIFO), 1 to 99", 1,
               99);
    add_register_options(app, o.faults);
    add_fault_options(app, o.faults);
}

struct served_link {
    served_link(const std::string& interface, const card_faults& faults) : name(interface), farm(faults), link(farm) {}
    std::string name;
    card_farm farm;
    card_link link;
};
using served_links = std::list<served_link>;

// Before the first thread starts, so that they wait for the main thread; not SIGHUP where nohup ignores it. Result:
// those that it blocked.
sigset_t block_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGUSR1, SIGINT, SIGTERM}) { sigaddset(&set, number); }
    struct sigaction hangup {};
    if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN) { sigaddset(&set, SIGHUP); }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

// What the cards hold; at the end, also the last frames. A file that cannot be written keeps no other from it.
// Result: empty, or one line that says what was wrong.
std::string save(const cardsim_options& options, served_links& links, bool ended)
{
    std::string wrong;
    const auto attempt = [&wrong](const auto& write) {
        try {
            write();
        } catch (const failure& failed) {
            wrong += (wrong.empty() ? "" : "; ") + failed.text;
        }
    };
    for (served_link& l : links) {
        if (!options.state_folder.empty()) {
            attempt([&] { save_state(l.farm, options.state_folder, l.name); });
        }
        if (ended && !options.pcap_folder.empty()) {
            const auto file = l.farm.with([](farm_content& c) { return c.trail.as_pcap(); });
            attempt([&] { tool::save(options.pcap_folder + '/' + l.name + ".pcap", file); });
        }
    }
    return wrong;
}

void run(const cardsim_options& options)
{
    const std::set<std::string> different(options.links.begin(), options.links.end());
    if (different.size() != options.links.size()) {
        tool::fail(problem::wrong_usage, "--link: the same interface is named twice");
    }
    for (const std::string& folder : {options.state_folder, options.pcap_folder}) {
        if (!folder.empty()) { prepare_folder(folder); }
    }
    const sigset_t signals = block_signals();
    served_links links;
    for (const std::string& name : options.links) {
        link_options how = options.how;
        how.interface = name;
        served_link& l = links.emplace_back(name, options.faults);
        if (!options.pcap_folder.empty()) {
            l.farm.with([&](auto& c) { c.trail.keep(options.pcap_frames); });
        }
        const std::string wrong = l.link.start(how);
        if (!wrong.empty()) { tool::fail(problem::io_error, "%s", wrong.c_str()); }
    }
    std::puts("ready");
    std::fflush(stdout);
    for (int number = 0; sigwait(&signals, &number) == 0 && number == SIGUSR1;) {
        const std::string wrong = save(options, links, false);
        if (!wrong.empty()) { std::fprintf(stderr, "rvk-cardsim: %s\n", wrong.c_str()); }
    }
    for (served_link& l : links) {
        l.link.stop();
        std::fputs(summary(l.farm, l.name).c_str(), stdout);
        std::printf("%s: %" PRIu64 " dropped by the kernel, %" PRIu64 " could not be sent\n", l.name.c_str(),
                    l.link.dropped(), l.link.unsent());
    }
    const std::string wrong = save(options, links, true);
    if (!wrong.empty()) { tool::fail(problem::io_error, "%s", wrong.c_str()); }
}

int run_command_line(int argc, char** argv)
{
    cardsim_options options;
    CLI::App app{about, "rvk-cardsim"};
    tool::set_up(app, footer);
    add_options(app, options);
    return tool::run_app(app, argc, argv, [&options] { run(options); });
}

} // namespace
} // namespace rvk

int main(int argc, char** argv)
{
    rvk::prepare_descriptors(O_RDONLY); // a link's socket with such a number would send what is printed
    return rvk::tool::run_tool("rvk-cardsim", [=] { return rvk::run_command_line(argc, argv); });
}
