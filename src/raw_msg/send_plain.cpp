#include "raw_msg/send_plain.h"

#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "main/log.h"

#include <algorithm>

namespace rvk {
namespace {

constexpr uint16_t no_sequence = 0; // nothing answers, so nothing is told apart

// What a short piece does not fill still holds the piece before it.
void fill(uint8_t* buf, std::span<const uint8_t> piece)
{
    uint8_t* end = std::copy(piece.begin(), piece.end(), buf);
    if (piece.size() < frame_data_min) { std::fill(end, buf + frame_data_min, uint8_t{0}); }
}

} // namespace

int32_t RawSockSendMsg(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                       std::span<const uint8_t> data)
{
    return send_plain_counted(index, model, slot, addr, code, data) < 0 ? -1 : 0;
}

int32_t send_plain_counted(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                           std::span<const uint8_t> data)
{
    if (data.empty()) { return 0; }
    // One buffer for all pieces: when its send returns, a piece is out.
    uint8_t* buf = RawMsgBuffGet(static_cast<unsigned>(std::min(frame_data_max, data.size())));
    if (buf == nullptr) {
        log_print(LOG_HERE, "RawMsgBuffGet fail\n");
        return -1;
    }
    int32_t unsent = 0;
    for (size_t at = 0; at < data.size(); at += frame_data_max) {
        const auto piece = data.subspan(at, std::min(frame_data_max, data.size() - at));
        fill(buf, piece);
        const auto piece_addr = static_cast<uint32_t>(addr + at);
        const auto length = static_cast<unsigned>(piece.size());
        if (RawSockMsgSend(index, model, slot, piece_addr, code, no_sequence, buf, length) < 1) {
            ++unsent;
            log_print(LOG_HERE, "#######error RawSockSendMsg : index:%d addr:0x%x length:%d send fail\n", index, addr,
                      static_cast<int>(data.size()));
        }
    }
    RawMsgBuffFree(buf);
    return unsent;
}

} // namespace rvk
