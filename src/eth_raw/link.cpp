#include "eth_raw/link.h"

#include "base/fd.h"
#include "main/log.h"

#include <arpa/inet.h>
#include <cstring>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

namespace rvk {

const char g_netdev_name[MAX_ETH][20] = {"eth0", "eth1", "eth2"};
eth_init g_eth_init[MAX_ETH];

namespace {

ifreq request_for(const char* if_name)
{
    ifreq request{};
    strncpy(request.ifr_name, if_name, sizeof request.ifr_name - 1);
    return request;
}

// Adds the flag to those of the device, which are there.
bool set_promiscuous(int fd, ifreq* device)
{
    device->ifr_flags = static_cast<short>(device->ifr_flags | IFF_PROMISC);
    return ioctl(fd, SIOCSIFFLAGS, device) == 0;
}

} // namespace

int32_t RawSockMsgInit(int index)
{
    const int32_t result = init_netdev(is_link(index) ? &g_eth_init[index] : nullptr, static_cast<unsigned>(index));
    if (result == 0) { return 0; }
    log_print(LOG_HERE, "init_netdev(%d) failed(%d).\n", index, result);
    return -1;
}

void RawSockMsgUnInit(int index)
{
    if (!is_link(index) || g_eth_init[index].if_name[0] == '\0') { return; } // never opened: its 0 is not its own
    unique_fd(g_eth_init[index].sock_fd).reset();
    g_eth_init[index].sock_fd = -1; // the number may be another file's soon
}

bool is_open(const eth_init& link) { return link.active != 0 && link.sock_fd >= 0 && !link.missing; }

void watch_link(int index)
{
    eth_init& link = g_eth_init[index];
    if (link.active == 0 || link.sock_fd < 0) { return; }
    ifreq device = request_for(link.if_name);
    if (ioctl(link.sock_fd, SIOCGIFINDEX, &device) < 0) {
        if (!link.missing.exchange(true)) {
            log_print(LOG_HERE, "link %d (%s): its device is gone\n", index, link.if_name);
        }
        return;
    }
    sockaddr_ll bound{}; // with the device that it had gone, to none, also where it is back with its old index
    socklen_t length = sizeof bound;
    if (getsockname(link.sock_fd, reinterpret_cast<sockaddr*>(&bound), &length) != 0) { return; }
    if (link.missing || device.ifr_ifindex != bound.sll_ifindex) {
        {
            const scoped_lock hold(link.send_mutex);
            if (socket_bind(&link.sll, link.sock_fd, link.if_name) < 0) { return; }
            link.missing = false;
        }
        log_print(LOG_HERE, "link %d (%s): its device is back\n", index, link.if_name);
    }
    if (ioctl(link.sock_fd, SIOCGIFFLAGS, &device) < 0 || (device.ifr_flags & IFF_PROMISC) != 0) { return; }
    static_cast<void>(set_promiscuous(link.sock_fd, &device)); // the next look tries again
}

uint32_t take_kernel_drops(int index)
{
    tpacket_stats seen{};
    socklen_t length = sizeof seen;
    const eth_init& link = g_eth_init[index];
    if (link.active == 0 || getsockopt(link.sock_fd, SOL_PACKET, PACKET_STATISTICS, &seen, &length) != 0) { return 0; }
    return seen.tp_drops; // asking starts the kernel's count anew
}

int32_t init_netdev(eth_init* record, unsigned index, const char* operation)
{
    if (index >= MAX_ETH) {
        log_print(LOG_HERE, "%s:%d:index(%d) MAX_ETH(%d).\n", __func__, __LINE__, static_cast<int>(index), MAX_ETH);
        return -1;
    }
    unique_fd fd{socket_init(g_netdev_name[index])};
    if (!fd) {
        log_print(LOG_HERE, "%s:%d:socket_init() failed(%d).\n", operation, __LINE__, -1);
        return -1;
    }
    memcpy(record->if_name, g_netdev_name[index], sizeof record->if_name);
    record->index = static_cast<int>(index);
    record->sock_fd = fd.get();
    log_print(LOG_HERE, "eth_init[%d].sock_fd = %d.\n", record->index, record->sock_fd);
    const int result = socket_bind(&record->sll, record->sock_fd, record->if_name);
    if (result < 0) {
        log_print(LOG_HERE, "socket_bind fail\n");
        record->sock_fd = -1;
        return result;
    }
    record->active = 1;
    static_cast<void>(fd.release()); // the record's own from here on
    return result;
}

int socket_init(const char* if_name)
{
    ifreq request = request_for(if_name);
    unique_fd fd{::socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, htons(ETH_P_ALL))};
    if (!fd) {
        log_print(LOG_HERE, "%s:%d:socket() created failed.\n", __func__, __LINE__);
        return -1;
    }
    if (ioctl(fd.get(), SIOCGIFFLAGS, &request) < 0) {
        log_print(LOG_HERE, "%s:%d:get inferface flag failed.\n", __func__, __LINE__);
        return -1;
    }
    if (!set_promiscuous(fd.get(), &request)) {
        log_print(LOG_HERE, "%s:%d:set IFF_PROMISC flag failed.\n", __func__, __LINE__);
        return -1;
    }
    return fd.release();
}

int socket_bind(sockaddr_ll* sll, int sock_fd, const char* if_name)
{
    ifreq request = request_for(if_name);
    if (const int result = ioctl(sock_fd, SIOCGIFINDEX, &request); result < 0) {
        log_print(LOG_HERE, "%s:%d:get ifindex failed.\n", __func__, __LINE__);
        return result;
    }
    sll->sll_ifindex = request.ifr_ifindex;
    sll->sll_family = AF_PACKET;
    sll->sll_protocol = htons(ETH_P_ALL);
    const int result = bind(sock_fd, reinterpret_cast<const sockaddr*>(sll), sizeof *sll);
    if (result < 0) { log_print(LOG_HERE, "%s:%d:bind failed\n", __func__, __LINE__); }
    return result;
}

} // namespace rvk
