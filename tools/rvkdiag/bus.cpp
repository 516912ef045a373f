// Bus-block transfers between a file and card memory. The link's socket gets a receive timeout, by which a card that
// sends nothing is given up after some seconds; why a read failed is then asked once more, piece by piece, since the
// block operation only says that it did.
#include "rvkdiag/commands.h"

#include "command/values.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/link.h"
#include "rvkdiag/direct_link.h"

#include <algorithm>
#include <sys/socket.h>
#include <sys/time.h>

namespace rvk::diag {
namespace {

using namespace tool;

constexpr timeval answer_wait{0, 50'000}; // a card answers within one; 100 of them are a failed block

size_t longest_packet(size_t bytes) { return std::clamp(bytes, bus_data_min, bus_data_max) + bus_packet_overhead; }

// The semaphore is every program's on this machine, so it is neither made sure of being free nor removed.
xfer open_link(int link, size_t bytes)
{
    xfer handle{};
    open_without_threads(link, longest_packet(bytes));
    const bool set = eth_raw_tranfser_set(&g_eth_init[link], &handle, 1) == 0 &&
                     setsockopt(handle.sock_fd, SOL_SOCKET, SO_RCVTIMEO, &answer_wait, sizeof answer_wait) == 0;
    if (set && open_semaphore() == 0 && sem_id >= 0) { return handle; }
    throw failure{
        problem::no_permission,
        format("the semaphore of the bus-block link (key %d) cannot be had, the lines above say why; see ipcs -s",
               bus_semaphore_key)};
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

failure first_fault(const xfer& handle, const bus_options& o, std::vector<uint8_t>& into)
{
    const std::string what = what_text(o, "read", o.len);
    const auto step = static_cast<uint32_t>(bus_data_max);
    for (uint32_t at = 0; at < o.len; at += step) {
        const int32_t came = ask_once_more(handle, o.addr + at, std::min(step, o.len - at), into.data() + at);
        if (came == 0) { continue; }
        if (came == bus_read_refused) {
            return {problem::refused, format("%s: the card refused at 0x%08x", what.c_str(), o.addr + at)};
        }
        return {problem::no_answer, format("%s: no answer at 0x%08x; check card, address and MTU at both ends (9000)",
                                           what.c_str(), o.addr + at)};
    }
    return {problem::no_answer, what + ": ten attempts failed, though each piece came when asked for alone: the link "
                                       "loses or spoils packets"};
}

failure why_unread(const xfer& handle, const bus_options& o, std::vector<uint8_t>& into)
{
    if (semaphore_p() != 0) {
        return {problem::no_permission, what_text(o, "read", o.len) + ": the bus-block link's semaphore is gone"};
    }
    failure found = first_fault(handle, o, into);
    static_cast<void>(semaphore_v()); // logged; undone at this process's end
    return found;
}

} // namespace

std::string run_bus_read(const bus_options& o)
{
    const xfer handle = open_link(o.link, o.len);
    std::vector<uint8_t> block(o.len);
    const stop_watch watch;
    if (Read_FPGA_Bus_Block(&handle, o.addr, o.len, block.data()) != 0) { throw why_unread(handle, o, block); }
    const double seconds = watch.seconds();
    write_file(o.file, block);
    return what_text(o, "read", o.len) + " into " + o.file + ": " + rate_text(o.len, seconds);
}

std::string run_bus_write(const bus_options& o)
{
    const xfer handle = open_link(o.link, o.bytes.size());
    const auto bytes = static_cast<uint32_t>(o.bytes.size());
    const stop_watch watch;
    if (Write_FPGA_Bus_Block(&handle, o.addr, bytes, o.bytes.data()) != 0) {
        throw failure{problem::no_answer, what_text(o, "write", bytes) + ": not sent whole, the lines above say why"};
    }
    return what_text(o, "write", bytes) + ", not acknowledged: " + rate_text(bytes, watch.seconds());
}

} // namespace rvk::diag
