#include "cardsim/replies.h"

#include "base/bytes.h"
#include "eth_raw/frame.h"

#include <cassert>

namespace rvk {

static_assert(reply::payload + reply_data_max + checksum_bytes <= reply_room);

void pack_reply(reply_frame& out, const request_fields& request, uint8_t status, uint8_t code,
                std::span<const uint8_t> data)
{
    assert(data.size() <= reply_data_max);
    uint8_t* frame = out.bytes.data();
    store_head(frame, reply::head);
    store_le16(frame + reply::sync, reply::sync_mark);
    frame[reply::ack] = status;
    store_le16(frame + reply::model, request.model);
    frame[reply::slot] = request.slot;
    store_le16(frame + reply::seq, request.seq);
    frame[reply::code] = code;
    store_le32(frame + reply::addr, request.addr);
    store_le16(frame + reply::len, static_cast<uint16_t>(data.size()));
    std::copy(data.begin(), data.end(), frame + reply::payload);
    out.length = reply::payload + data.size() + checksum_bytes;
    close_reply(out);
}

void close_reply(reply_frame& frame)
{
    const size_t end = frame.length - checksum_bytes;
    store_le16(frame.bytes.data() + end, frame_checksum(frame.bytes.data() + checksummed_from, end - checksummed_from));
}

} // namespace rvk
