// See the headers. A line that begins with "%s:%d:" names the operation that was called, also where a helper logs it.
// Data is copied once on its way out and once on its way in. A block that failed is repeated whole.
#include "eth_raw/bus_block.h"

#include "base/clock.h"
#include "eth_raw/link.h"
#include "main/log.h"

#include <algorithm>
#include <cerrno>
#include <sys/sem.h>
#include <sys/socket.h>

namespace rvk {

int sem_id = -1;

namespace {

static_assert(bus_links == MAX_ETH);
constexpr int write_attempts = 3, read_attempts = 10; // ours
constexpr uint64_t set_wait_ms = 100;                 // ours
constexpr uint32_t piece_bytes = bus_data_max;

int32_t check_parameters(const char* operation, const xfer* handle, uint32_t length, const void* data)
{
    const char* const wrong = handle == nullptr || handle->sock_fd < 1 || handle->sll == nullptr ? "xfer"
                              : data == nullptr                                                  ? "data"
                              : length > bus_block_max                                           ? "length"
                                                                                                 : nullptr;
    if (wrong == nullptr) { return 0; }
    log_print(LOG_HERE, "%s:%d:invalid parameter(%s).\n", operation, __LINE__, wrong);
    return -1;
}

union semun { // the caller defines it, says semctl
    int val;
    semid_ds* buf;
};

int32_t change_semaphore(const char* operation, short by, char name)
{
    sembuf change{0, by, SEM_UNDO};
    if (TEMP_FAILURE_RETRY(semop(sem_id, &change, 1)) == 0) { return 0; }
    log_print(LOG_HERE, "%s:%d:semaphore %c func failed\n", operation, __LINE__, name);
    return -1;
}

// Whether its maker ended before setting it, which would hold everybody for ever: any taking leaves a time (otime).
bool was_never_set()
{
    semid_ds found{};
    semun into{};
    into.buf = &found;
    return semctl(sem_id, 0, IPC_STAT, into) == 0 && found.sem_otime == 0 && semctl(sem_id, 0, GETVAL) == 0;
}

// Runs an operation under the semaphore until it succeeds, at most `attempts` times. `name` is that of the operation
// tried. Result: a failing semaphore's first, since nobody else can go on then; otherwise the last attempt's.
template <class Operation>
int32_t attempt(int attempts, const char* caller, const char* name, Operation operation)
{
    if (const int32_t result = semaphore_p(); result != 0) { return result; }
    int32_t result = -1;
    for (int i = 0; i < attempts && result != 0; ++i) { result = operation(); }
    if (result != 0) { log_print(LOG_HERE, "%s:%d:%s() failed.\n", caller, __LINE__, name); }
    const int32_t released = semaphore_v();
    return released != 0 ? released : result;
}

// Nothing is copied unless the packet holds all that was asked for: `length` bounds what `destination` takes.
int32_t take_read_back(const char* operation, std::span<const uint8_t> packet, uint32_t length, uint8_t* destination)
{
    if (packet[bus::type] == bus_response) {
        if (packet[bus::data] == 0) { return 0; }
        log_print(LOG_HERE, "%s:%d:read back failed, ACK flag = %d.\n", operation, __LINE__, packet[bus::data]);
        return bus_read_refused;
    }
    if (packet[bus::type] != bus_read_back || packet_length_judge(packet, length) != 0) { return -1; }
    const uint32_t holds = load_le32(packet.data() + bus::length) - static_cast<uint32_t>(bus_packet_overhead);
    if (holds < length) { return -1; } // less than it says
    memcpy(destination, packet.data() + bus::data, length);
    return 0;
}

int32_t read_piece(const char* operation, const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination)
{
    if (const int32_t result = send_request_message_func(handle, addr, length); result != 0) {
        log_print(LOG_HERE, "%s:%d:send_request_message_func() failed(ret = %d).\n", operation, __LINE__, result);
        return result;
    }
    for (int i = 0; i < bus_answer_tries; ++i) {
        const int32_t result = recv_read_back_message_func(handle, addr, length, destination);
        if (result == 0) { return 0; }
        if (result == bus_read_refused) { return -1; }
    }
    log_print(LOG_HERE, "%s:%d:recv_read_back_message_func() failed.\n", operation, __LINE__);
    return -1;
}

} // namespace

size_t make_bus_request(std::array<uint8_t, bus_packet_max>* packet, uint32_t addr, uint32_t length,
                        const uint8_t* data, uint8_t type)
{
    if (type == bus_write && length > bus_data_max) { return 0; }
    const size_t carried = type == bus_write ? length : bus_data_min;
    const size_t area = std::max(carried, bus_data_min);
    const size_t total = area + bus_packet_overhead;
    uint8_t* p = packet->data();
    store_head(p, {eth_raw_tx_header, {}, eth_raw_transfer_IP});
    store_le32(p + bus::length, static_cast<uint32_t>(total));
    p[bus::rsv0] = eth_raw_transfer_rsv0;
    p[bus::type] = type;
    std::copy(eth_raw_transfer_rsv1.begin(), eth_raw_transfer_rsv1.end(), p + bus::rsv1);
    store_le32(p + bus::addr, addr);
    store_le32(p + bus::data_len, length);
    memcpy(p + bus::data, data, carried);
    std::fill_n(p + bus::data + carried, area - carried, uint8_t{0});
    // Summed over the data, not to the area's end. A read's length may exceed its area of 64: zeros add nothing.
    const size_t summed = std::min<size_t>(length, area) + bus_packet_overhead;
    store_le16(p + total - checksum_bytes, packet_checksum_calc({p, summed}));
    return total;
}

int32_t judge_packet(std::span<const uint8_t> packet, uint32_t addr)
{
    if (packet.size() < bus_packet_overhead || packet_header_judge(packet) != 0) { return -1; }
    const size_t length = packet[bus::type] == bus_read_back  ? load_le32(packet.data() + bus::length)
                          : packet[bus::type] == bus_response ? bus_short_packet
                                                              : 0;
    if (length < bus_packet_overhead || length > packet.size()) { return -1; }
    const auto answer = packet.first(length);
    if (packet_checksum_judge(answer, packet_checksum_calc(answer)) != 0) { return -1; }
    return load_le32(packet.data() + bus::addr) == addr ? 0 : -1;
}

int32_t packet_header_judge(std::span<const uint8_t> packet)
{
    return load_head(packet.data()).destination == eth_raw_rx_header ? 0 : -1;
}

int32_t packet_checksum_judge(std::span<const uint8_t> packet, uint16_t computed)
{
    return load_le16(packet.data() + packet.size() - checksum_bytes) == computed ? 0 : -1;
}

int32_t packet_length_judge(std::span<const uint8_t> packet, uint32_t requested)
{
    return load_le32(packet.data() + bus::data_len) == requested ? 0 : -1;
}

uint16_t packet_checksum_calc(std::span<const uint8_t> packet)
{
    const size_t count = packet.size() - bus::length - checksum_bytes;
    return static_cast<uint16_t>(frame_checksum(packet.data() + bus::length, count) - checksum_start);
}

int32_t Open_Eth_Raw(xfer* handles, int count)
{
    if (count < 0 || count > MAX_ETH) {
        log_print(LOG_HERE, "invalid cnt(%d).\n", count);
        return -1;
    }
    if (const int32_t result = netdev_init(g_eth_init, MAX_ETH); result != 0) {
        log_print(LOG_HERE, "netdev_init() failed(%d).\n", result);
        return -1;
    }
    if (const int32_t result = eth_raw_tranfser_set(g_eth_init, handles, count); result != 0) {
        log_print(LOG_HERE, "%s:%d:eth_raw_tranfser_set() failed.\n", __func__, __LINE__);
        return result;
    }
    return open_semaphore();
}

int32_t Close_Eth_Raw()
{
    del_semvalue();
    return 0;
}

int32_t Write_FPGA_Bus_Block(const xfer* handle, uint32_t addr, uint32_t length, const uint8_t* data)
{
    if (check_parameters(__func__, handle, length, data) != 0) { return -1; }
    return attempt(write_attempts, __func__, "write_process_func",
                   [=] { return write_process_func(handle, addr, length, data); });
}

int32_t Read_FPGA_Bus_Block(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination)
{
    if (check_parameters(__func__, handle, length, destination) != 0) { return -1; }
    return attempt(read_attempts, __func__, "read_process_func",
                   [=] { return read_process_func(handle, addr, length, destination); });
}

int32_t netdev_init(eth_init* links, int count)
{
    for (int i = 0; i < count; ++i) {
        if (const int32_t result = init_netdev(&links[i], static_cast<unsigned>(i), __func__); result != 0) {
            return result;
        }
    }
    return 0;
}

int32_t eth_raw_tranfser_set(eth_init* links, xfer* handles, int count)
{
    if (links == nullptr || (handles == nullptr && count > 0)) { return -1; }
    for (int i = 0; i < count; ++i) { handles[i] = {links[i].sock_fd, &links[i].sll}; }
    return 0;
}

int32_t write_process_func(const xfer* handle, uint32_t addr, uint32_t length, const uint8_t* data)
{
    for (uint32_t at = 0; at < length; at += piece_bytes) {
        const uint32_t n = std::min(length - at, piece_bytes);
        const int32_t result = send_message_func_unit(handle, addr + at, n, data + at, bus_write);
        if (result == 0) { continue; }
        if (n == piece_bytes) {
            log_print(LOG_HERE, "%s:%d:send_message_func_unit() failed(i = %d, ret = %d).\n", __func__, __LINE__,
                      static_cast<int>(at / piece_bytes), result);
        } else {
            log_print(LOG_HERE, "%s:%d:send_message_func_unit() failed(ret = %d).\n", __func__, __LINE__, result);
        }
        return result;
    }
    return 0;
}

int32_t read_process_func(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination)
{
    for (uint32_t at = 0; at < length; at += piece_bytes) {
        const uint32_t n = std::min(length - at, piece_bytes);
        if (const int32_t result = read_piece(__func__, handle, addr + at, n, destination + at); result != 0) {
            return result;
        }
    }
    return 0;
}

int32_t send_message_func_unit(const xfer* handle, uint32_t addr, uint32_t length, const uint8_t* data, uint8_t type)
{
    std::array<uint8_t, bus_packet_max> packet;
    const size_t total = make_bus_request(&packet, addr, length, data, type);
    if (total == 0) { return -1; }
    const ssize_t sent = sendto(handle->sock_fd, packet.data(), total, 0,
                                reinterpret_cast<const sockaddr*>(handle->sll), sizeof *handle->sll);
    if (sent == static_cast<ssize_t>(total)) { return 0; }
    if (sent < 0 && errno == EMSGSIZE) {
        log_print(LOG_HERE, "packet of %zu bytes is longer than the link takes: set its MTU to 9000\n", total);
    }
    return -1;
}

int32_t send_request_message_func(const xfer* handle, uint32_t addr, uint32_t length)
{
    constexpr std::array<uint8_t, bus_data_min> zero{};
    const int32_t result = send_message_func_unit(handle, addr, length, zero.data(), bus_read);
    if (result != 0) { log_print(LOG_HERE, "send request packet failed!!!(ret : %d)\n", result); }
    return result;
}

int32_t recv_message_func_unit(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination, uint8_t kind)
{
    std::array<uint8_t, bus_packet_max> buffer;
    const ssize_t received = recvfrom(handle->sock_fd, buffer.data(), buffer.size(), 0, nullptr, nullptr);
    if (received <= 0 || received > static_cast<ssize_t>(bus_answer_max)) { return -1; }
    const std::span<const uint8_t> packet{buffer.data(), static_cast<size_t>(received)};
    if (judge_packet(packet, addr) != 0) { return -1; }
    if (kind == bus_read_back) { return take_read_back(__func__, packet, length, destination); }
    if (kind != bus_response) { return 0; }
    if (packet[bus::type] != bus_response) { return -1; }
    if (packet[bus::data] == 0) { return 1; }
    log_print(LOG_HERE, "%s:%d:failed, ACK flag = %d.\n", __func__, __LINE__, packet[bus::data]);
    return -1;
}

int32_t recv_read_back_message_func(const xfer* handle, uint32_t addr, uint32_t length, uint8_t* destination)
{
    const int32_t result = recv_message_func_unit(handle, addr, length, destination, bus_read_back);
    if (result < 0 && result != bus_read_refused) {
        log_print(LOG_HERE, "%s:%d:recv_message_func_unit() failed(ret = %d).\n", __func__, __LINE__, result);
    }
    return result;
}

int32_t recv_response_message_func(const xfer* handle, uint32_t addr, uint32_t length)
{
    return recv_message_func_unit(handle, addr, length, nullptr, bus_response) == 1 ? 0 : -1;
}

// Without a semaphore the links are still of use for single packets: what needs it fails where it is taken.
int32_t open_semaphore()
{
    sem_id = semget(bus_semaphore_key, 1, IPC_CREAT | IPC_EXCL | 0666);
    int error = errno;
    log_print(LOG_HERE, "sem_id = %d, errno = %d.\n", sem_id, error);
    if (sem_id >= 0) {
        if (set_semvalue() == 0) { return 0; }
        log_print(LOG_HERE, "Failed to initialize semaphore(sem_id : %d).\n", sem_id);
        del_semvalue(); // of value 0, it would hold everybody who attaches to it for ever
        return -1;
    }
    if (error == EEXIST) {
        sem_id = semget(bus_semaphore_key, 1, 0);
        error = errno;
        log_print(LOG_HERE, "sem_id(%d) already exits.\n", sem_id);
        if (was_never_set()) {
            pause_ms(set_wait_ms); // its maker may be about to
            if (was_never_set()) { static_cast<void>(set_semvalue()); }
        }
    }
    if (sem_id < 0) {
        log_print(LOG_HERE, "no semaphore of key %d (%s): every block operation will fail\n", bus_semaphore_key,
                  strerror(error));
    }
    return 0;
}

int32_t set_semvalue()
{
    const semun value{.val = 1};
    if (semctl(sem_id, 0, SETVAL, value) == 0) { return 0; }
    log_print(LOG_HERE, "%s:%d:set sem val failed.\n", __func__, __LINE__);
    return -1;
}

void del_semvalue()
{
    if (semctl(sem_id, 0, IPC_RMID) != 0) { log_print(LOG_HERE, "Failed to delete semaphore\n"); }
}

int32_t semaphore_p() { return change_semaphore(__func__, -1, 'P'); }
int32_t semaphore_v() { return change_semaphore(__func__, 1, 'V'); }

} // namespace rvk
