// Any bytes as a run of frames to the simulated cards. Without a fault every answer is one that the daemon's own check
// accepts, and only reads (also of bus blocks) and acknowledged writes are answered; with one, nothing may be touched
// that is not there.
//
// Input: one byte that picks the fault (0: none), then frames, each behind a byte of what to put right (bit 0
// addresses, type and sync, bit 1 the checksum) and a two-byte length.
#include "cardsim/cards.h"
#include "base/bytes.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/frame.h"

#include <algorithm>
#include <cstdlib>
#include <vector>

using namespace rvk;

namespace {

constexpr uint64_t step_us = 1000;
constexpr size_t frame_head = 3; // input: what to put right, length

void put_right(std::vector<uint8_t>& frame, uint8_t what)
{
    if (frame.size() < request::payload + checksum_bytes) { return; }
    if ((what & 1) != 0) {
        store_head(frame.data(), request::head);
        store_le16(frame.data() + request::sync, request::sync_mark);
    }
    const size_t end = frame.size() - checksum_bytes;
    if ((what & 2) != 0) {
        store_le16(frame.data() + end, frame_checksum(frame.data() + checksummed_from, end - checksummed_from));
    }
}

card_faults faults_of(uint8_t choice)
{
    card_faults faults{.seed = choice};
    if (choice != 0) { faults.how_often[choice % chance_count].part = 0.5; }
    return faults;
}

bool is_accepted(const reply_frame& reply)
{
    if (reply[bus::type] == bus_read_back) { // of a frame, that is a byte of the source address
        return judge_packet(reply, load_le32(&reply[bus::addr])) == 0;
    }
    uint8_t ack = 0, slot = 0, code = 0;
    uint16_t model = 0, seq = 0, len = 0;
    uint32_t addr = 0;
    return RawMsgHeaderUnpack(reply.data(), reply.size(), &ack, &model, &slot, &code, &addr, &seq, &len) != nullptr;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) { return 0; }
    card_farm farm(faults_of(data[0]));
    std::vector<reply_frame> out;
    std::span<const uint8_t> rest{data + 1, size - 1};
    for (uint64_t now_us = 0; rest.size() >= frame_head; now_us += step_us) {
        const size_t length = std::min<size_t>(load_le16(rest.data() + 1), rest.size() - frame_head);
        const auto taken = rest.subspan(frame_head, length);
        std::vector<uint8_t> frame(taken.begin(), taken.end());
        put_right(frame, rest[0]);
        rest = rest.subspan(frame_head + length);
        farm.request(frame, now_us, out);
    }
    if (data[0] != 0) { return 0; }
    const farm_counts counts = farm.counts();
    if (out.size() != counts.reads + counts.acknowledged_writes + counts.bus_reads) { abort(); }
    if (!std::all_of(out.begin(), out.end(), is_accepted)) { abort(); }
    return 0;
}
