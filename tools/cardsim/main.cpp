// rvk-cardsim: cards for everyone who has none. Opens the interfaces it is given, serves them with a thread each, and
// waits for signals on the main thread: SIGUSR1 saves, SIGINT and SIGTERM end it.
#include "base/fd.h"
#include "cardsim/link.h"
#include "cardsim/options.h"
#include "cardsim/state.h"

#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <list>

namespace rvk {
namespace {

struct served_link {
    explicit served_link(const cardsim_options& options, std::string interface)
        : name(std::move(interface)), farm(options.faults), link(farm)
    {
        farm.set_behaviour(options.behaviour);
        if (!options.pcap_folder.empty()) { farm.keep_trail(options.pcap_frames); }
    }
    std::string name;
    card_farm farm;
    card_link link;
};

bool complained(const std::string& error)
{
    if (!error.empty()) { std::fprintf(stderr, "rvk-cardsim: %s\n", error.c_str()); }
    return !error.empty();
}

// Blocked before the first thread starts, so that they wait for the main thread.
sigset_t blocked_signals()
{
    sigset_t set;
    sigemptyset(&set);
    for (const int number : {SIGUSR1, SIGINT, SIGTERM}) { sigaddset(&set, number); }
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    return set;
}

bool save(const cardsim_options& options, std::list<served_link>& links)
{
    if (options.state_folder.empty()) { return true; }
    bool good = true;
    for (served_link& l : links) {
        good = !complained(save_state(l.farm, options.state_folder, l.name, options.loaded)) && good;
    }
    return good;
}

bool save_frames(const cardsim_options& options, std::list<served_link>& links)
{
    if (options.pcap_folder.empty()) { return true; }
    std::error_code ignored; // a folder that is not there shows when the file is created
    std::filesystem::create_directories(options.pcap_folder, ignored);
    bool good = true;
    for (served_link& l : links) {
        good = !complained(l.farm.write_pcap(options.pcap_folder + '/' + l.name + ".pcap")) && good;
    }
    return good;
}

void serve_until_ended(const cardsim_options& options, std::list<served_link>& links, const sigset_t& signals)
{
    int number = 0;
    while (sigwait(&signals, &number) == 0 && number == SIGUSR1) { static_cast<void>(save(options, links)); }
}

int run(const cardsim_options& options)
{
    const sigset_t signals = blocked_signals();
    std::list<served_link> links;
    for (const std::string& name : options.links) {
        served_link& l = links.emplace_back(options, name);
        link_options how;
        how.interface = name;
        how.processor = options.processor;
        how.priority = options.priority;
        if (complained(l.link.start(how))) { return 1; }
    }
    std::puts("ready");
    std::fflush(stdout);
    serve_until_ended(options, links, signals);
    for (served_link& l : links) {
        l.link.stop();
        std::fputs(summary(l.farm, l.name).c_str(), stdout);
        std::printf("%s: %llu dropped by the kernel, %llu could not be sent\n", l.name.c_str(),
                    static_cast<unsigned long long>(l.link.dropped()),
                    static_cast<unsigned long long>(l.link.unsent()));
    }
    const bool saved = save(options, links);
    return save_frames(options, links) && saved ? 0 : 1;
}

} // namespace
} // namespace rvk

int main(int argc, char** argv)
{
    rvk::prepare_descriptors(O_RDONLY); // a link's socket with such a number would send what is printed
    const rvk::parsed_options parsed = rvk::parse_options(argc, argv);
    if (parsed.given) { return rvk::run(*parsed.given); }
    std::fputs(parsed.text.c_str(), parsed.status == 0 ? stdout : stderr);
    return parsed.status;
}
