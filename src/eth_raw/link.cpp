#include "eth_raw/link.h"

#include "base/clock.h"
#include "base/counters.h"
#include "base/fd.h"
#include "eth_raw/frame.h"
#include "main/log.h"
#include "mem/mem.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <net/ethernet.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

namespace rvk {

const char g_netdev_name[MAX_ETH][20] = {"eth0", "eth1", "eth2"};
eth_init g_eth_init[MAX_ETH];
uint8_t gRecvBuffer[receive_bytes];
static_assert(reply::payload + frame_data_max + checksum_bytes <= sizeof gRecvBuffer);

namespace {

constexpr uint64_t would_block_us = 1000;  // ours
constexpr uint64_t receive_retry_ms = 100; // ours

ifreq request_for(const char* if_name)
{
    ifreq request{};
    strncpy(request.ifr_name, if_name, sizeof request.ifr_name - 1);
    return request;
}

// device  with its present flags, to which the flag is added
bool set_promiscuous(int fd, ifreq* device)
{
    device->ifr_flags = static_cast<short>(device->ifr_flags | IFF_PROMISC);
    return ioctl(fd, SIOCSIFFLAGS, device) == 0;
}

struct send_outcome {
    ssize_t sent;
    int error;
};

send_outcome send_once(const eth_init& link, const uint8_t* frame, size_t count)
{
    const ssize_t sent =
        sendto(link.sock_fd, frame, count, 0, reinterpret_cast<const sockaddr*>(&link.sll), sizeof link.sll);
    return {sent, sent < 0 ? errno : 0}; // a send that is cut short leaves errno to the call before it
}

send_failure failure_of(const send_outcome& outcome)
{
    if (outcome.sent >= 0) { return send_failure::cut_short; }
    switch (outcome.error) {
    case EAGAIN: return send_failure::would_block;
    case ENETDOWN: return send_failure::link_down;
    case ENOBUFS:
    case ENOMEM: return send_failure::no_buffers;
    case ENXIO:
    case ENODEV: return send_failure::no_device;
    default: return send_failure::other;
    }
}

// Sends a frame, once more where the socket would block, and counts what came of it.
send_outcome transmit(int index, const uint8_t* frame, size_t count)
{
    eth_init& link = g_eth_init[index];
    link_counters& figures = link_count[index];
    send_outcome outcome{};
    {
        const scoped_lock hold(link.send_mutex);
        print_msg(frame, count);
        outcome = send_once(link, frame, count);
        if (outcome.sent < 0 && outcome.error == EAGAIN) {
            log_print(LOG_HERE, "need send again\n");
            figures.send_failed[send_failure::would_block].add();
            pause_us(would_block_us);
            outcome = send_once(link, frame, count);
        }
    }
    if (outcome.sent == static_cast<ssize_t>(count)) {
        figures.frames_sent.add();
        figures.bytes_sent.add(count);
    } else {
        figures.send_failed[failure_of(outcome)].add();
    }
    return outcome;
}

int32_t transmit_or_log(int index, uint8_t* payload, unsigned frame_bytes, unsigned len)
{
    const send_outcome outcome = transmit(index, RawMsgBuffHeadGet(payload), frame_bytes);
    if (outcome.sent == static_cast<ssize_t>(frame_bytes)) { return static_cast<int32_t>(frame_bytes); }
    print_send_error(outcome.error);
    log_print(LOG_HERE, "sendto fail:len = %d, ret_len = %d, packet_length= %d, errno = %d\n", static_cast<int>(len),
              static_cast<int>(outcome.sent), static_cast<int>(frame_bytes), outcome.error);
    return -1;
}

// A link that is not open is refused before the system call: its descriptor may be anybody's. Logged once per link.
bool is_open_or_logged(int index)
{
    static std::atomic<bool> logged[MAX_ETH];
    if (is_open(g_eth_init[index])) { return true; }
    link_count[index].send_failed[send_failure::not_open].add();
    if (!logged[index].exchange(true)) {
        log_print(LOG_HERE, "link %d (%s) is not open: nothing is sent to its cards\n", index, g_netdev_name[index]);
    }
    return false;
}

bool can_be_sent_or_logged(int index, const uint8_t* payload, unsigned len)
{
    if (!is_link(index)) {
        log_print(LOG_HERE, "index >= MAX_ETH\n");
        return false;
    }
    if (payload == nullptr || len == 0 || len > frame_data_max) {
        log_print(LOG_HERE, "data is NULL len = %d\n", static_cast<int>(len));
        return false;
    }
    return is_open_or_logged(index);
}

// A receive that fails (error not 0) must not spin its real-time thread: one line, and a pause each time.
void log_and_back_off(int index, int error)
{
    const bool failed = error != 0;
    static bool down[MAX_ETH]; // each only by its link's receive thread
    if (failed && !down[index]) {
        log_print(LOG_HERE, "link %d (%s): receive failed (%s), trying on every %d ms\n", index, g_netdev_name[index],
                  strerror(error), static_cast<int>(receive_retry_ms));
    }
    if (!failed && down[index]) { log_print(LOG_HERE, "link %d (%s): receives again\n", index, g_netdev_name[index]); }
    down[index] = failed;
    if (failed) { pause_ms(receive_retry_ms); }
}

constexpr int min_buffers = 1000;         // ours
constexpr unsigned min_buffer_bytes = 64; // card: the shortest payload

struct min_buffer {
    uint8_t* buf;
    int used;
};

mutex table_mtx;
min_buffer stMinBuff[min_buffers] RVK_GUARDED_BY(table_mtx);
int minbuffercount RVK_GUARDED_BY(table_mtx); // the entry handed out last

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
    if (!is_link(index) || g_eth_init[index].if_name[0] == '\0') { return; } // never opened: its 0 is no socket of ours
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
    sockaddr_ll bound{}; // a device that is gone unbinds it, also where one came back with the same index
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
    if (record->if_name[0] == '\0') { record->sock_fd = -1; } // never opened: its 0 is no socket of ours
    memcpy(record->if_name, g_netdev_name[index], sizeof record->if_name);
    record->index = static_cast<int>(index);
    log_print(LOG_HERE, "eth_init[%d].sock_fd = %d.\n", record->index, fd.get());
    const int result = socket_bind(&record->sll, fd.get(), record->if_name);
    if (result < 0) {
        log_print(LOG_HERE, "socket_bind fail\n");
        return result;
    }
    unique_fd(record->sock_fd).reset(); // of an earlier opening
    record->sock_fd = fd.release();
    record->active = 1;
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

void print_send_error(int error) { console_print(STDERR_FILENO, "sendto fail:: %s\n", strerror(error)); }

uint8_t* RawMsgBuffGet(unsigned len)
{
    const size_t bytes = request::payload + std::max<size_t>(len, frame_data_min) + checksum_bytes;
    void* const block = len <= frame_data_max ? mem_alloc(static_cast<unsigned>(bytes)) : nullptr;
    if (block == nullptr) { return log_print(LOG_HERE, "RawMsgBuffGet fail\n"), nullptr; }
    return static_cast<uint8_t*>(memset(block, 0, bytes)) + request::payload;
}

uint8_t* RawMsgBuffHeadGet(uint8_t* payload) { return payload - request::payload; }

void RawMsgBuffFree(uint8_t* payload)
{
    if (payload != nullptr) { mem_free(RawMsgBuffHeadGet(payload)); }
}

void RawMsgFreeBuf(uint8_t* payload) { RawMsgBuffFree(payload); }

int32_t RawSockMsgSend(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code, uint16_t seq,
                       uint8_t* payload, unsigned len)
{
    if (!can_be_sent_or_logged(index, payload, len)) { return -1; }
    uint8_t* frame = payload;
    const unsigned count = RawMsgHeaderPack(model, slot, code, addr, seq, &frame, static_cast<uint16_t>(len));
    return transmit_or_log(index, payload, count, len);
}

int32_t send_packed(int index, uint8_t* payload, unsigned frame_bytes, unsigned len)
{
    return can_be_sent_or_logged(index, payload, len) ? transmit_or_log(index, payload, frame_bytes, len) : -1;
}

int32_t RawSockMsgSendAgain(int index, uint8_t* payload, unsigned frame_bytes, int* error)
{
    if (!is_link(index) || payload == nullptr || !is_open_or_logged(index)) { return -1; }
    const send_outcome outcome = transmit(index, RawMsgBuffHeadGet(payload), frame_bytes);
    if (outcome.sent == static_cast<ssize_t>(frame_bytes)) { return static_cast<int32_t>(frame_bytes); }
    const int failure = outcome.error != 0 ? outcome.error : EIO; // a send that is cut short has none
    if (error == nullptr) {
        print_send_error(failure);
    } else {
        *error = failure;
    }
    return -1;
}

const uint8_t* RawSockMsgRecv(int index, uint8_t* ack, uint16_t* model, uint8_t* slot, uint32_t* addr, uint8_t* code,
                              uint16_t* seq, uint16_t* len)
{
    if (!is_link(index)) { return nullptr; }
    const ssize_t received = recvfrom(g_eth_init[index].sock_fd, gRecvBuffer, sizeof gRecvBuffer, 0, nullptr, nullptr);
    if (received < 0 && errno == EINTR) { return nullptr; }
    log_and_back_off(index, received < 0 ? errno : 0);
    if (received <= 0) { return nullptr; }
    const auto count = static_cast<size_t>(received);
    print_msg(gRecvBuffer, count);
    const uint8_t* payload = RawMsgHeaderUnpack(gRecvBuffer, count, ack, model, slot, code, addr, seq, len);
    link_counters& figures = link_count[index];
    figures.frames_received.add();
    figures.bytes_received.add(count);
    if (payload == nullptr) { figures.dropped[fault_of(gRecvBuffer, count).value_or(drop::foreign)].add(); }
    return payload;
}

void print_msg(const uint8_t* frame, size_t count)
{
    if (print_flag == 0) { return; }
    console_print(STDOUT_FILENO, "%s: \n", frame == gRecvBuffer ? "recv" : "send");
    for (size_t i = 0; i < count; ++i) { console_print(STDOUT_FILENO, i % 16 == 0 ? "\n%02x " : "%02x ", frame[i]); }
    console_print(STDOUT_FILENO, "\n");
}

int32_t RawMsgInitMinBuffer()
{
    const scoped_lock hold(table_mtx);
    for (min_buffer& entry : stMinBuff) {
        if (entry.buf == nullptr) { entry.buf = static_cast<uint8_t*>(malloc(min_buffer_bytes)); }
        entry.used = 0;
        if (entry.buf == nullptr) { return -1; }
    }
    minbuffercount = 0;
    return 0;
}

void RawMsgUninitMinBuffer()
{
    const scoped_lock hold(table_mtx);
    for (min_buffer& entry : stMinBuff) {
        free(entry.buf);
        entry = {};
    }
    minbuffercount = 0;
}

uint8_t* RawMsgMinBuffGet()
{
    const scoped_lock hold(table_mtx);
    const int next = (minbuffercount + 1) % min_buffers;
    min_buffer& entry = stMinBuff[next];
    if (entry.buf == nullptr || entry.used != 0) {
        log_print(LOG_HERE, "min buffer is %s\n", entry.buf == nullptr ? "NULL" : "not enough");
        return nullptr;
    }
    entry.used = 1;
    minbuffercount = next;
    return entry.buf;
}

void RawMsgMinBuffFree(uint8_t* block)
{
    const scoped_lock hold(table_mtx);
    for (min_buffer& entry : stMinBuff) {
        if (block == nullptr || entry.buf != block) { continue; }
        entry.used = 0;
        return;
    }
    log_print(LOG_HERE, "%p is no small buffer: nothing freed\n", static_cast<void*>(block));
}

} // namespace rvk
