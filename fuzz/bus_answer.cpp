// Any bytes as a packet that comes while an answer of the older block link is waited for: only a well-formed answer is
// taken, all of those are, and the destination is written to its end at most.
//
// Input: one byte of what to put right (bit 0 destination, 1 length, 2 address, 3 data length, 4 checksum), the
// expected kind, the requested length in two bytes, then the packet. What is due is decided by other code than the
// link's.
#include "base/bytes.h"
#include "eth_raw/bus_block.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <span>
#include <sys/socket.h>
#include <vector>

using namespace rvk;

namespace {

constexpr uint32_t addr = 0x01234567;
constexpr size_t input_head = 4;
constexpr uint8_t untouched = 0xEE;

std::span<const uint8_t> arriving; // what the next receive gets

uint16_t sum_of(const uint8_t* packet, size_t end)
{
    unsigned sum = 0;
    for (size_t i = 6; i < end; ++i) { sum += packet[i]; }
    return static_cast<uint16_t>(sum);
}

void put_right(std::vector<uint8_t>& p, uint8_t what, uint32_t length)
{
    if (p.size() < 26) { return; }
    if ((what & 1) != 0) { std::fill_n(p.begin(), 6, uint8_t{0x44}); }
    if ((what & 2) != 0) { store_le32(&p[6], static_cast<uint32_t>(p.size())); }
    if ((what & 4) != 0) { store_le32(&p[16], addr); }
    if ((what & 8) != 0) { store_le32(&p[20], length); }
    const size_t end = p[11] == 3 ? 90 : load_le32(&p[6]);
    if ((what & 16) != 0 && end >= 26 && end <= p.size()) { store_le16(&p[end - 2], sum_of(p.data(), end - 2)); }
}

bool is_answer(std::span<const uint8_t> p)
{
    if (p.size() < 26 || p.size() > 8046 || !std::all_of(p.begin(), p.begin() + 6, [](int b) { return b == 0x44; })) {
        return false;
    }
    const size_t end = p[11] == 3 ? 90 : p[11] == 2 ? load_le32(&p[6]) : 0;
    return end >= 26 && end <= p.size() && load_le16(&p[end - 2]) == sum_of(p.data(), end - 2) &&
           load_le32(&p[16]) == addr;
}

int32_t due(std::span<const uint8_t> p, uint8_t kind, uint32_t length)
{
    if (!is_answer(p)) { return -1; }
    if (kind != 2 && kind != 3) { return 0; }
    if (p[11] == 3) { return kind == 3 ? (p[24] == 0 ? 1 : -1) : p[24] == 0 ? 0 : -2; }
    const bool fits = load_le32(&p[20]) == length && load_le32(&p[6]) - 26 >= length;
    return kind == 2 && fits ? 0 : -1;
}

} // namespace

// In the place of the system's call: a packet socket cuts what is longer than the buffer.
extern "C" ssize_t __wrap_recvfrom(int, void* into, size_t room, int, sockaddr*, socklen_t*)
{
    const size_t n = std::min(room, arriving.size());
    if (n > 0) { std::memcpy(into, arriving.data(), n); }
    return static_cast<ssize_t>(n);
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < input_head) { return 0; }
    const uint8_t kind = data[1];
    const uint32_t length = std::min<uint32_t>(load_le16(data + 2), 8000);
    std::vector<uint8_t> packet(data + input_head, data + size);
    put_right(packet, data[0], length);
    arriving = packet;
    const sockaddr_ll nowhere{};
    const xfer handle{1, &nowhere};
    const std::unique_ptr<uint8_t[]> destination{new uint8_t[length]}; // of its own size: one byte too far is seen
    std::fill_n(destination.get(), length, untouched);
    const int32_t result = recv_message_func_unit(&handle, addr, length, destination.get(), kind);
    if (result != due(packet, kind, length)) { abort(); }
    const bool taken = result == 0 && kind == 2 && packet[11] == 2;
    const auto is_untouched = [](uint8_t b) { return b == untouched; };
    const bool right = taken ? std::equal(destination.get(), destination.get() + length, &packet[24])
                             : std::all_of(destination.get(), destination.get() + length, is_untouched);
    if (!right) { abort(); }
    return 0;
}
