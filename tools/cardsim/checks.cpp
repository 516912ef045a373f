#include "cardsim/checks.h"

#include "base/bytes.h"
#include "eth_raw/frame.h"

#include <algorithm>
#include <array>

namespace rvk {
namespace {

constexpr std::array<const char*, verdict_count> names{"good",
                                                       "foreign",
                                                       "wrong_destination",
                                                       "wrong_type",
                                                       "wrong_sync",
                                                       "too_short_for_header",
                                                       "unknown_code",
                                                       "len_zero",
                                                       "len_above_max",
                                                       "shorter_than_len",
                                                       "longer_than_len",
                                                       "wrong_checksum",
                                                       "padding_not_zero",
                                                       "read_area_not_zero",
                                                       "plain_write_numbered"};

bool all_zero(std::span<const uint8_t> bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t b) { return b == 0; });
}

// Up to the end of the header, which is there in full once this is good.
verdict check_header(std::span<const uint8_t> frame)
{
    if (frame.size() < sizeof(ethernet_head)) { return verdict::foreign; }
    const ethernet_head head = load_head(frame.data());
    if (head.source != request::head.source) { return verdict::foreign; }
    if (head.destination != request::head.destination) { return verdict::wrong_destination; }
    if (frame.size() < request::payload) { return verdict::too_short_for_header; }
    if (head.type != request::head.type) { return verdict::wrong_type; }
    return load_le16(frame.data() + request::sync) == request::sync_mark ? verdict::good : verdict::wrong_sync;
}

verdict check_sizes(size_t received, uint8_t code, size_t len)
{
    if (code != code_read && code != code_write && code != code_write_ack) { return verdict::unknown_code; }
    if (len == 0) { return verdict::len_zero; }
    if (len > frame_data_max) { return verdict::len_above_max; }
    const size_t due = request::payload + padded_length(code, len) + checksum_bytes;
    if (received < due) { return verdict::shorter_than_len; }
    return received > due ? verdict::longer_than_len : verdict::good;
}

verdict check_contents(std::span<const uint8_t> frame, uint8_t code, size_t len)
{
    const size_t end = frame.size() - checksum_bytes;
    const uint16_t computed = frame_checksum(frame.data() + checksummed_from, end - checksummed_from);
    if (load_le16(frame.data() + end) != computed) { return verdict::wrong_checksum; }
    const auto area = frame.subspan(request::payload, end - request::payload);
    if (code == code_read) { return all_zero(area) ? verdict::good : verdict::read_area_not_zero; }
    if (!all_zero(area.subspan(len))) { return verdict::padding_not_zero; }
    const bool numbered = code == code_write && load_le16(frame.data() + request::seq) != 0;
    return numbered ? verdict::plain_write_numbered : verdict::good;
}

} // namespace

const char* name_of(verdict v) { return names[static_cast<size_t>(v)]; }

verdict check_request(std::span<const uint8_t> frame, request_fields& out)
{
    if (const verdict v = check_header(frame); v != verdict::good) { return v; }
    const uint8_t code = frame[request::code];
    const uint16_t len = load_le16(frame.data() + request::len);
    if (const verdict v = check_sizes(frame.size(), code, len); v != verdict::good) { return v; }
    if (const verdict v = check_contents(frame, code, len); v != verdict::good) { return v; }
    out.model = load_le16(frame.data() + request::model);
    out.slot = frame[request::slot];
    out.seq = load_le16(frame.data() + request::seq);
    out.code = code;
    out.addr = load_le32(frame.data() + request::addr);
    out.len = len;
    out.data = frame.subspan(request::payload, code == code_read ? 0 : len);
    return verdict::good;
}

} // namespace rvk
