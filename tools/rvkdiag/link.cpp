// On link 0 a daemon's endpoint is looked for under every board number: whatever APCARD_SELF says here, a daemon of
// this machine works on eth0. It counts as alive while it is bound, since during an update it answers nobody.
#include "rvkdiag/link.h"

#include "ap_msg/message.h"
#include "base/clock.h"
#include "base/fd.h"
#include "base/mutex.h"
#include "command/failure.h"
#include "command/values.h"
#include "eth_raw/link.h"
#include "mem/mem.h"
#include "platform/local/endpoint.h"
#include "raw_msg/link_threads.h"
#include "raw_msg/send.h"
#include "rvkdiag/log.h"
#include "timer/timer.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <utility>

namespace rvk::diag {
namespace {

using namespace tool;

constexpr int daemon_link = 0, boards = 256;
constexpr double lock_wait_s = 5;
constexpr uint64_t lock_look_ms = 50, report_look_ms = 2;

// The lock's file: the four kinds' next numbers, and who holds it.
struct lock_record {
    std::array<unsigned, 4> next{};
    char holder[64] = "another program";
};
unique_fd lock;
lock_record record;
std::optional<numbers> used;

sequence& sequence_of(numbers kind)
{
    static constexpr std::array all{&write_ack, &write_ack_wait, &read_ack, &read_wait};
    return *all[static_cast<size_t>(kind)];
}

void read_record()
{
    char text[128] = "";
    if (pread(lock.get(), text, sizeof text - 1, 0) <= 0) { return; }
    auto& n = record.next;
    static_cast<void>(sscanf(text, "%u %u %u %u %63[^\n]", &n[0], &n[1], &n[2], &n[3], record.holder));
}

void write_record()
{
    const auto& n = record.next;
    const std::string text = format("%u %u %u %u rvkdiag, process %d\n", n[0], n[1], n[2], n[3], getpid());
    const auto bytes = static_cast<ssize_t>(text.size());
    if (ftruncate(lock.get(), 0) == 0 && pwrite(lock.get(), text.data(), text.size(), 0) == bytes) { return; }
    fprintf(stderr, "rvkdiag: the numbers of this run cannot be kept: %s\n", strerror(errno));
}

void refuse_beside_a_daemon(int link)
{
    if (link != daemon_link) { return; }
    for (int board = 0; board < boards; ++board) {
        const uint32_t identity = identity_of(static_cast<uint8_t>(board), module_self);
        if (!local::endpoint_alive(identity)) { continue; }
        fail(problem::wrong_usage,
             "link 0 is in use by a daemon (%s/%08x.sock is alive): each would take the other's answers; end rvkd "
             "first, or use rvkctl; links 1 and 2 are free",
             local::endpoint_directory(), identity);
    }
}

// Asks for one fact of an interface. Result: false when there is no such interface.
bool ask_interface(int link, unsigned long what, ifreq& out)
{
    const unique_fd fd{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    out = {};
    strncpy(out.ifr_name, g_netdev_name[link], sizeof out.ifr_name - 1);
    return ioctl(fd.get(), what, &out) == 0;
}

void check_interface(int link, size_t longest_frame)
{
    const std::string named = name_of_link(link);
    const char *name = g_netdev_name[link], *const what = named.c_str();
    ifreq asked;
    if (!ask_interface(link, SIOCGIFFLAGS, asked)) {
        fail(problem::no_answer, "%s: this machine has no such interface; see ip link", what);
    }
    if ((asked.ifr_flags & IFF_UP) == 0) { fail(problem::no_answer, "%s is down: ip link set %s up", what, name); }
    if ((asked.ifr_flags & IFF_RUNNING) == 0) {
        fail(problem::no_answer, "%s has no carrier: check the cable and whether the card is on", what);
    }
    const size_t needed = longest_frame - ETHER_HDR_LEN;
    if (!ask_interface(link, SIOCGIFMTU, asked) || static_cast<size_t>(asked.ifr_mtu) >= needed) { return; }
    fail(problem::wrong_usage, "%s has an MTU of %d, and this needs %zu: ip link set %s mtu 9000", what, asked.ifr_mtu,
         needed, name);
}

[[noreturn]] void fail_to_open(int link, const std::string& why)
{
    fail(problem::no_permission, "%s cannot be opened%s; it takes root, or CAP_NET_RAW, CAP_NET_ADMIN and CAP_SYS_NICE",
         name_of_link(link).c_str(), why.c_str());
}

mutex reports_mtx;
std::vector<report>& reports() RVK_REQUIRES(reports_mtx)
{
    static auto* const kept = new std::vector<report>; // link threads may report while the process exits
    return *kept;
}

// The transport's `request_ended`. A link's threads.
void keep_report(const QNode* node, int32_t result)
{
    report made{node->addr, result, node->end != outcome::given_up || node->refusals >= refusals_max};
    if (node->dest != nullptr) {
        if (result == 0) { made.data.assign(node->dest, node->dest + node->recv_len); }
        ApMsgBuffFree(node->dest);
    }
    const scoped_lock hold(reports_mtx);
    reports().push_back(std::move(made));
}

bool blocks_are_out()
{
    int out = 0;
    for (int type = 0; type < static_cast<int>(mem_classes); ++type) { out |= mem_in_use(type); }
    return out != 0;
}

} // namespace

std::string name_of_link(int link) { return format("link %d (%s)", link, g_netdev_name[link]); }

void take_link(int link, std::optional<numbers> kind, size_t frames)
{
    const std::string path = format("/run/rvkdiag-%s.lock", g_netdev_name[link]);
    lock.reset(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock) { fail_to_open(link, " (" + path + ": " + strerror(errno) + ")"); }
    const stop_watch watch;
    while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (watch.seconds() < lock_wait_s) {
            pause_ms(lock_look_ms);
            continue;
        }
        read_record();
        fail(problem::wrong_usage,
             "%s is in use by %s: each would take the other's answers; try again when it has ended",
             name_of_link(link).c_str(), record.holder);
    }
    read_record();
    used = kind;
    if (kind) {
        sequence& s = sequence_of(*kind);
        unsigned& next = record.next[static_cast<size_t>(*kind)];
        const scoped_lock hold(s.mtx);
        s.seq = static_cast<uint16_t>(next);
        next = static_cast<uint16_t>(next + frames); // until there is an answer to each
    }
    write_record();
}

void all_answered()
{
    if (!used) { return; }
    record.next[static_cast<size_t>(*used)] = 0;
    write_record();
}

void open_link(int link, size_t longest_frame, bool threads)
{
    refuse_beside_a_daemon(link);
    check_interface(link, longest_frame);
    mem_init();
    if (!threads) {
        if (RawSockMsgInit(link) != 0) { fail_to_open(link, said()); }
        return;
    }
    sigset_t ticks; // for the check thread alone, which unblocks them
    sigemptyset(&ticks);
    sigaddset(&ticks, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &ticks, nullptr);
    queue_init();
    request_ended = keep_report;
    pthread_t receive{}, check{};
    if (initTimer() != 0 || RawMsgModuleInit(link, &receive, &check) != 0 || g_eth_init[link].active == 0) {
        fail_to_open(link, said());
    }
}

std::vector<report> await_reports()
{
    while (blocks_are_out()) { pause_ms(report_look_ms); } // a request gives its blocks back after its report
    const scoped_lock hold(reports_mtx);
    return std::exchange(reports(), {});
}

} // namespace rvk::diag
