#include "ap_msg/endpoint.h"

#include "ap_msg/dispatch.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/counters.h"
#include "base/rt_thread.h"
#include "main/log.h"
#include "platform/platform.h"

#include <array>
#include <unistd.h>
#include <utility>

namespace rvk {
namespace {

constexpr int ipc_priority = 88; // ours, SCHED_FIFO

bool is_data_message(std::span<const uint8_t> bytes)
{
    if (bytes.size() < message_head_bytes) { return false; }
    const auto type = static_cast<int16_t>(load_le16(bytes.data() + message::msg_type));
    const auto kind = static_cast<int16_t>(load_le16(bytes.data() + message::msg_class));
    return kind == data_class && (type == 0 || type == 1);
}

void print_foreign(std::span<const uint8_t> bytes)
{
    std::array<char, 1200 * 3 + 1> text; // a part in one call, so that no thread's log line comes into the middle of it
    size_t used = 0;
    for (const uint8_t byte : bytes) {
        used += static_cast<size_t>(snprintf(&text[used], 4, "%02x ", byte));
        if (used + 4 < text.size()) { continue; }
        console_write(STDOUT_FILENO, text.data(), std::exchange(used, 0));
    }
    text[used] = '\n';
    console_write(STDOUT_FILENO, text.data(), used + 1);
}

} // namespace

int32_t WexApipcInit() { return apipc_init(own_identity(), 0); }

int32_t WexApRecvTaskCreate(int processor)
{
    if (start_thread("rvk-ipc", ipc_priority, ApMsgRecv, processor, nullptr) == 0) { return 0; }
    log_print(LOG_HERE, "failed to create thread \n");
    return -1;
}

void ApMsgRecv(int processor)
{
    if (pin_to_processor(processor) != 0) {
        log_print(LOG_HERE, "%s : index %d sched_setaffinity failed\n", __func__, processor);
    }
    log_print(LOG_HERE, "wex thread id : %d index = %d\n", kernel_thread_id(), processor);
    if (WexApipcInit() != 0) {
        log_print(LOG_HERE, "create apipc wex fail\n");
        return;
    }
    log_print(LOG_HERE, "create apipc wex succeed\n");
    daemon_count.endpoint_registered.set(1);
    for (;;) { static_cast<void>(apipc_loop_wait(0, ApipcEventDeal)); } // returns on an error, never at once again
}

int ApipcEventDeal(int, int, const void* message, int length)
{
    if (message == nullptr || length < 0) { return -1; }
    const std::span bytes{static_cast<const uint8_t*>(message), static_cast<size_t>(length)};
    if (is_data_message(bytes)) { return ApipcDataProc(bytes, bytes.subspan(message::data_head)); }
    daemon_count.refused[refusal::wrong_type].add();
    log_print(LOG_HERE, "msg type wrong\n");
    print_foreign(bytes);
    return 0;
}

} // namespace rvk
