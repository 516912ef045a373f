#include "cardsim/requests.h"

#include "eth_raw/frame.h"

#include <algorithm>
#include <cstdio>

namespace rvk {
namespace {

std::vector<uint8_t> packed(const test_request& request, std::span<const uint8_t> data, uint16_t len)
{
    std::vector<uint8_t> buffer(request_bytes_max);
    std::copy(data.begin(), data.end(), buffer.begin() + request::payload);
    uint8_t* payload = buffer.data() + request::payload;
    buffer.resize(
        RawMsgHeaderPack(request.model, request.slot, request.code, request.addr, request.seq, &payload, len));
    return buffer;
}

} // namespace

std::vector<uint8_t> write_frame(const test_request& request, std::span<const uint8_t> data)
{
    return packed(request, data, static_cast<uint16_t>(data.size()));
}

std::vector<uint8_t> read_frame(const test_request& request, uint16_t len) { return packed(request, {}, len); }

void close_request(std::vector<uint8_t>& frame)
{
    const size_t end = frame.size() - checksum_bytes;
    const uint16_t sum = frame_checksum(frame.data() + checksummed_from, end - checksummed_from);
    frame[end] = static_cast<uint8_t>(sum);
    frame[end + 1] = static_cast<uint8_t>(sum >> 8);
}

std::string as_seen(std::span<const uint8_t> reply)
{
    uint8_t ack = 0, slot = 0, code = 0;
    uint16_t model = 0, seq = 0, len = 0;
    uint32_t addr = 0;
    if (!RawMsgHeaderUnpack(reply.data(), reply.size(), &ack, &model, &slot, &code, &addr, &seq, &len)) { return "-"; }
    char text[32];
    std::snprintf(text, sizeof text, "%02x/%u/%u", code, ack, len);
    return text;
}

} // namespace rvk
