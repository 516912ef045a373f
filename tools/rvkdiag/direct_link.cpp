// See the header. On link 0 a daemon's endpoint is looked for under every board number: whatever APCARD_SELF says here,
// a daemon of this machine works on eth0. It counts as alive while it is bound, since during an update it answers
// nobody.
#include "rvkdiag/direct_link.h"

#include "ap_msg/message.h"
#include "base/fd.h"
#include "command/failure.h"
#include "command/values.h"
#include "eth_raw/link.h"
#include "mem/mem.h"
#include "platform/local/endpoint.h"
#include "queue/queue.h"
#include "raw_msg/link_threads.h"
#include "rvkdiag/reports.h"
#include "timer/timer.h"

#include <csignal>
#include <cstring>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace rvk::diag {
namespace {

using namespace tool;

constexpr int daemon_link = 0, boards = 256;

void refuse_beside_a_daemon(int link)
{
    if (link != daemon_link) { return; }
    for (int board = 0; board < boards; ++board) {
        const uint32_t identity = identity_of(static_cast<uint8_t>(board), module_self);
        if (!local::endpoint_alive(identity)) { continue; }
        throw failure{problem::wrong_usage,
                      format("link 0 is in use by a daemon (%s/%08x.sock is alive): each would take the other's "
                             "answers; end rvkd first, or use rvkctl; links 1 and 2 are free",
                             local::endpoint_directory(), identity)};
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
    const char* name = g_netdev_name[link];
    const std::string named = name_of_link(link);
    ifreq asked;
    if (!ask_interface(link, SIOCGIFFLAGS, asked)) {
        throw failure{problem::no_answer, named + ": this machine has no such interface; see ip link"};
    }
    if ((asked.ifr_flags & IFF_UP) == 0) {
        throw failure{problem::no_answer, format("%s is down: ip link set %s up", named.c_str(), name)};
    }
    if ((asked.ifr_flags & IFF_RUNNING) == 0) {
        throw failure{problem::no_answer, named + " has no carrier: check the cable and whether the card is on"};
    }
    const size_t needed = longest_frame - ETHER_HDR_LEN;
    if (ask_interface(link, SIOCGIFMTU, asked) && static_cast<size_t>(asked.ifr_mtu) < needed) {
        throw failure{problem::wrong_usage, format("%s has an MTU of %d, and this needs %zu: ip link set %s mtu 9000",
                                                   named.c_str(), asked.ifr_mtu, needed, name)};
    }
}

[[noreturn]] void fail_to_open(int link)
{
    throw failure{problem::no_permission,
                  name_of_link(link) + " cannot be opened, the lines above say why; it takes root, or CAP_NET_RAW, "
                                       "CAP_NET_ADMIN and CAP_SYS_NICE"};
}

} // namespace

std::string name_of_link(int link) { return format("link %d (%s)", link, g_netdev_name[link]); }

void open_without_threads(int link, size_t longest_frame)
{
    refuse_beside_a_daemon(link);
    check_interface(link, longest_frame);
    mem_init();
    if (RawSockMsgInit(link) != 0) { fail_to_open(link); }
}

void open_with_threads(int link, size_t longest_frame)
{
    refuse_beside_a_daemon(link);
    check_interface(link, longest_frame);
    sigset_t ticks; // for the check thread alone, which unblocks them
    sigemptyset(&ticks);
    sigaddset(&ticks, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &ticks, nullptr);
    queue_init();
    mem_init();
    request_ended = keep_report;
    pthread_t receive{}, check{};
    if (initTimer() != 0 || RawMsgModuleInit(link, &receive, &check) != 0 || g_eth_init[link].active == 0) {
        fail_to_open(link);
    }
}

} // namespace rvk::diag
