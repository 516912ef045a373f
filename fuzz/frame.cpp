// Any bytes as a received frame: a payload that is handed out lies within what was received.
//
// The first byte says what is put right before the frame is looked at (bit 0 addresses and sync, bit 1 the checksum):
// chance alone would not get past them. The frame gets a block of its own size, so that one byte too far is seen.
#include "eth_raw/frame.h"
#include "base/bytes.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

using namespace rvk;

namespace {

void put_right(uint8_t* frame, size_t size, uint8_t what)
{
    if (size < reply::payload + checksum_bytes) { return; }
    if ((what & 1) != 0) {
        store_head(frame, {reply::head.destination, reply::head.source, load_head(frame).type});
        store_le16(frame + reply::sync, reply::sync_mark);
    }
    const size_t summed = reply::payload + load_le16(frame + reply::len) - checksummed_from;
    if ((what & 2) != 0 && checksummed_from + summed + checksum_bytes <= size) {
        store_le16(frame + size - checksum_bytes, frame_checksum(frame + checksummed_from, summed));
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) { return 0; }
    const std::unique_ptr<uint8_t[]> frame{new uint8_t[size - 1]};
    std::copy(data + 1, data + size, frame.get());
    put_right(frame.get(), size - 1, data[0]);
    uint8_t ack = 0, slot = 0, code = 0;
    uint16_t model = 0, seq = 0, len = 0;
    uint32_t addr = 0;
    const uint8_t* payload = RawMsgHeaderUnpack(frame.get(), size - 1, &ack, &model, &slot, &code, &addr, &seq, &len);
    if (payload != nullptr && reply::payload + len + checksum_bytes > size - 1) { abort(); }
    if (payload != nullptr && payload != frame.get() + reply::payload) { abort(); }
    return 0;
}
