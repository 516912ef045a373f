// Bus-block transfers between a file and card memory. The link's socket gets a receive timeout, by which a card that
// sends nothing is given up after some seconds; why a read failed is then asked once more, piece by piece, since the
// block operation only says that it did.
#include "rvkdiag/commands.h"

#include "base/clock.h"
#include "base/fd.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/link.h"
#include "rvkdiag/link.h"
#include "rvkdiag/log.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace rvk::diag {
namespace {

using namespace tool;

constexpr timeval answer_wait{0, 50'000}; // a card answers within one; a silent one is given up after a hundred
constexpr uint64_t look_ms = 20;

// The block operation waits without bound, and says nothing.
void tell_of_a_wait()
{
    const stop_watch watch;
    while (semctl(sem_id, 0, GETVAL) == 0) {
        if (watch.seconds() > 1) {
            fprintf(stderr, "rvkdiag: waiting for the bus-block operation of process %d to end\n",
                    semctl(sem_id, 0, GETPID));
            return;
        }
        pause_ms(look_ms);
    }
}

// The semaphore is every program's on this machine, so it is neither made sure of being free nor removed.
xfer open_bus(int link, size_t bytes)
{
    xfer handle{};
    take_link(link);
    open_link(link, std::clamp(bytes, bus_data_min, bus_data_max) + bus_packet_overhead, false);
    const bool set = eth_raw_tranfser_set(&g_eth_init[link], &handle, 1) == 0 &&
                     setsockopt(handle.sock_fd, SOL_SOCKET, SO_RCVTIMEO, &answer_wait, sizeof answer_wait) == 0;
    if (set && open_semaphore() == 0 && sem_id >= 0) {
        tell_of_a_wait();
        return handle;
    }
    fail(problem::no_permission, "the semaphore of the bus-block link (key %d) cannot be had; see ipcs -s%s",
         bus_semaphore_key, said().c_str());
}

std::string what_text(const bus_options& o, const char* verb, size_t bytes)
{
    return format("bus %s of %s at 0x%08x, %s", verb, byte_count(bytes).c_str(), o.addr, name_of_link(o.link).c_str());
}

// 0: the piece came. Otherwise what the last try said.
int32_t ask_once_more(const xfer& handle, uint32_t addr, uint32_t n, uint8_t* into)
{
    int32_t result = send_request_message_func(&handle, addr, n);
    for (int i = 0; result == 0 && i < bus_answer_tries; ++i) {
        const int32_t came = recv_read_back_message_func(&handle, addr, n, into);
        if (came == 0 || came == bus_read_refused) { return came; }
    }
    return -1;
}

[[noreturn]] void refuse_first_fault(const xfer& handle, const bus_options& o, std::vector<uint8_t>& into)
{
    const std::string what = what_text(o, "read", o.len);
    const auto step = static_cast<uint32_t>(bus_data_max);
    for (uint32_t at = 0; at < o.len; at += step) {
        const int32_t came = ask_once_more(handle, o.addr + at, std::min(step, o.len - at), into.data() + at);
        if (came == 0) { continue; }
        if (came == bus_read_refused) {
            fail(problem::refused, "%s: the card refused at 0x%08x", what.c_str(), o.addr + at);
        }
        fail(problem::no_answer, "%s: no answer at 0x%08x; check card, address and MTU at both ends (9000)",
             what.c_str(), o.addr + at);
    }
    fail(problem::no_answer,
         "%s: ten attempts failed, though each piece came when asked for alone: the link loses or spoils packets",
         what.c_str());
}

// Reads `bytes` of the block from offset `at` on into their place.
void read_part(const xfer& handle, const bus_options& o, std::vector<uint8_t>& block, size_t at, size_t bytes)
{
    const auto addr = static_cast<uint32_t>(o.addr + at);
    if (Read_FPGA_Bus_Block(&handle, addr, static_cast<uint32_t>(bytes), block.data() + at) == 0) { return; }
    if (semaphore_p() != 0) {
        fail(problem::no_permission, "%s: the bus-block link's semaphore is gone", what_text(o, "read", o.len).c_str());
    }
    refuse_first_fault(handle, o, block); // the semaphore is undone at this process's end
}

bool is_all(std::span<const uint8_t> bytes, uint8_t what)
{
    return std::all_of(bytes.begin(), bytes.end(), [=](uint8_t byte) { return byte == what; });
}

// The block operation takes a card's "good" for an answer also where it brought no data: a piece that is still as it
// was filled before, of two different fillings, brought none.
void read_block(const xfer& handle, const bus_options& o, std::vector<uint8_t>& block)
{
    constexpr uint8_t filling = 0xA5, other = 0x5A;
    std::fill(block.begin(), block.end(), filling);
    read_part(handle, o, block, 0, block.size());
    for (size_t at = 0; at < block.size(); at += bus_data_max) {
        const auto piece = std::span(block).subspan(at, std::min(bus_data_max, block.size() - at));
        if (!is_all(piece, filling)) { continue; }
        std::fill(piece.begin(), piece.end(), other);
        read_part(handle, o, block, at, piece.size());
        if (!is_all(piece, other)) { continue; }
        fail(problem::refused, "%s: the card answered \"good\" without data at 0x%08x",
             what_text(o, "read", o.len).c_str(), static_cast<uint32_t>(o.addr + at));
    }
}

// Before a card is asked.
void check_output(const std::string& path)
{
    const bool was_there = ::access(path.c_str(), F_OK) == 0;
    const unique_fd file{open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NONBLOCK, 0666)};
    if (!file) { fail(problem::io_error, "file \"%s\" cannot be made: %s", path.c_str(), strerror(errno)); }
    if (!was_there) { unlink(path.c_str()); }
}

} // namespace

std::string run_bus_read(const bus_options& o)
{
    check_output(o.file);
    const xfer handle = open_bus(o.link, o.len);
    std::vector<uint8_t> block(o.len);
    const stop_watch watch;
    read_block(handle, o, block);
    const double seconds = watch.seconds();
    save(o.file, block);
    return what_text(o, "read", o.len) + " into " + o.file + ": " + rate_text(o.len, seconds);
}

std::string run_bus_write(const bus_options& o)
{
    const std::vector<uint8_t> block = bytes_of_file(o.file); // at most bus_block_max
    const auto bytes = static_cast<uint32_t>(block.size());
    check_space(o.addr, bytes);
    const xfer handle = open_bus(o.link, bytes);
    const stop_watch watch;
    if (Write_FPGA_Bus_Block(&handle, o.addr, bytes, block.data()) != 0) {
        fail(problem::no_answer, "%s: not sent whole%s", what_text(o, "write", bytes).c_str(), said().c_str());
    }
    return what_text(o, "write", bytes) + ", not acknowledged: " + rate_text(bytes, watch.seconds());
}

} // namespace rvk::diag
