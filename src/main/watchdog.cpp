#include "base/clock.h"
#include "base/counters.h"
#include "base/fd.h"
#include "eth_raw/link.h"
#include "main/log.h"
#include "main/status.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>

namespace rvk {
namespace {

constexpr uint32_t still_us = 5'000'000; // ours: a check pass comes every 10 ms

bool stands_still(int link)
{
    const uint32_t last = link_count[link].last_check_us;
    return is_open(g_eth_init[link]) && last != 0 && monotonic_us() - last > still_us;
}

// nullptr: nothing.
const char* what_is_stuck()
{
    if (daemon_count.endpoint_registered.get() != 0 && daemon_count.endpoint_up.get() == 0) {
        return "its endpoint's socket is gone, or another's";
    }
    for (int link = 0; link < MAX_ETH; ++link) {
        if (stands_still(link)) { return "a link's check passes stand still"; }
    }
    return nullptr;
}

} // namespace

void feed_watchdog()
{
    static const char* said; // the status thread's own
    const char* const what = what_is_stuck();
    if (what != nullptr && what != said) { log_print(LOG_HERE, "nobody is served: %s; restart the daemon\n", what); }
    said = what;
    constexpr std::string_view alive = "WATCHDOG=1";
    const char* const named = getenv("NOTIFY_SOCKET");
    sockaddr_un manager{AF_UNIX, ""};
    if (named == nullptr || strlen(named) > sizeof manager.sun_path || what != nullptr) { return; }
    memcpy(manager.sun_path, named, strlen(named));
    if (manager.sun_path[0] == '@') { manager.sun_path[0] = '\0'; } // abstract
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(named));
    const unique_fd fd{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    static_cast<void>(sendto(fd.get(), alive.data(), alive.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&manager), length));
}

} // namespace rvk
