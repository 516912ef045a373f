#include "ap_msg/demo_io.h"

#include "ap_msg/mailbox.h"
#include "ap_msg/picture_write.h"
#include "eth_raw/frame.h"
#include "raw_msg/send.h"

namespace rvk {
namespace {

constexpr uint32_t demo_ticks = 3; // ours

} // namespace

int32_t DemoRawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr, std::span<uint8_t> dest)
{
    const scoped_lock hold(demo_mutex);
    uint32_t received = 0;
    return RawSockSendMsgWithReadWait(index, model, slot, addr, code_read, static_cast<uint32_t>(dest.size()), dest,
                                      &received, demo_ticks);
}

int32_t DemoRawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                      std::span<const uint8_t> data)
{
    const scoped_lock hold(demo_mutex);
    uint8_t ack = no_answer;
    return RawSockSendMsgWithAckWait(index, model, slot, addr, code_write_ack, data, &ack, demo_ticks);
}

int32_t write_demo_data(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint16_t hor, uint16_t ver,
                        std::span<const uint8_t> data)
{
    const scoped_lock hold(demo_mutex);
    return DDR2Write(index, model, slot, buffer, hor, ver, data);
}

} // namespace rvk
