#include "ap_msg/dispatch.h"

#include "ap_msg/file_service.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/counters.h"
#include "base/rt_thread.h"
#include "eth_raw/frame.h"
#include "main/log.h"
#include "platform/platform.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <unistd.h>
#include <utility>

namespace rvk {
namespace {

constexpr int ipc_priority = 88;         // ours, SCHED_FIFO
constexpr int broadcast_index = 15;      // message: no unit id maps to it
constexpr uint32_t slot1_read_ticks = 3; // ours: a read from slot 1
constexpr uint32_t other_ticks = 6;      // ours: every other exchange

// In the order of command_kind; what is none of them is its `other`.
constexpr std::array codes{command::read,      command::write,  command::write_ack, command::file_write,
                           command::file_read, command::update, command::greeting};
static_assert(codes.size() == static_cast<size_t>(command_kind::other));

command_kind kind_of(uint8_t code)
{
    return static_cast<command_kind>(std::find(codes.begin(), codes.end(), code) - codes.begin());
}

// Of any board.
bool is_daemon(uint32_t identity) { return (identity >> 8 & 0xFF) == module_self; }

// All writes of the companion; of others those not to slot 1, model 0, addresses below 0x10000000.
bool is_waited_for(const received_command& c)
{
    if (c.requester == companion_identity()) { return true; }
    return c.slot != 1 || c.model != 0 || (c.addr & 0xF0000000u) != 0;
}

// Whether the message ends before the payload does.
bool refuse_if_cut(const received_command& c)
{
    if (c.payload.size() == c.len) { return false; }
    daemon_count.refused[refusal::cut].add();
    log_print(LOG_HERE, "command 0x%02x from 0x%08x refused: len %u, but its message holds %zu bytes of it\n", c.code,
              c.requester, c.len, c.payload.size());
    return true;
}

bool refuse_if_too_long(const received_command& c, size_t limit)
{
    if (c.len <= limit) { return false; }
    daemon_count.refused[refusal::too_long].add();
    log_print(LOG_HERE, "command 0x%02x from 0x%08x refused: len %u, at most %zu\n", c.code, c.requester, c.len, limit);
    return true;
}

int32_t read_card(const received_command& c)
{
    if (refuse_if_too_long(c, frame_data_max)) {
        send_reply(c, -1);
        return 0;
    }
    uint8_t* buffer = ApMsgBuffGet(frame_data_max);
    if (buffer == nullptr) {
        daemon_count.refused[refusal::no_memory].add();
        return -1;
    }
    uint32_t received = 0;
    int32_t result = 0;
    {
        const scoped_lock hold(demo_mutex);
        result =
            RawSockSendMsgWithReadWait(c.index, c.model, c.slot, c.addr, code_read, c.len, {buffer, frame_data_max},
                                       &received, c.slot == 1 ? slot1_read_ticks : other_ticks);
    }
    if (result == 0) {
        uint8_t* head = ApMsgBuffHeadGet(buffer);
        make_reply(head, c, 0, received);
        static_cast<void>(ApipcDataSend(c.requester, head, received)); // one that is gone is the outbox's to log
    } else {
        send_reply(c, -1);
    }
    log_print(LOG_HERE, "RawSockSendMsgWithReadWait response %s\n", result == 0 ? "ok" : "not ok");
    ApMsgBuffFree(buffer);
    return 0;
}

void write_plain(const received_command& c)
{
    if (refuse_if_cut(c)) { return; }
    if (RawSockSendMsg(c.index, c.model, c.slot, c.addr, code_write, c.payload) != 0) {
        log_print(LOG_HERE, "ApipcDataProc RawSockSendMsg fail\n");
    }
}

void write_waited(const received_command& c)
{
    uint8_t ack = 0; // not examined: an answer is a success, whatever its status
    int32_t result = 0;
    {
        const scoped_lock hold(demo_mutex);
        result =
            RawSockSendMsgWithAckWait(c.index, c.model, c.slot, c.addr, code_write_ack, c.payload, &ack, other_ticks);
    }
    log_print(LOG_HERE, "RawSockSendMsgWithAckWait response %s\n", result == 0 ? "ok" : "not ok");
    send_reply(c, result == 0 ? 0 : -1);
}

// Not answered: a piece given up is reported later, one not sent is only logged.
void write_unwaited(const received_command& c)
{
    if (RawSockSendMsgWithAck(c.requester, c.index, c.model, c.slot, c.addr, code_write_ack, c.payload) != 0) {
        log_print(LOG_HERE, "ApipcDataProc RawSockSendMsgWithAck fail\n");
    }
}

void write_acknowledged(const received_command& c)
{
    const bool waited = is_waited_for(c);
    if (!refuse_if_cut(c)) { return waited ? write_waited(c) : write_unwaited(c); }
    if (waited) { return send_reply(c, -1); }
    static_cast<void>(ApipcDataSendAck(c.requester, write_report(c.index, c.addr, -1).data()));
}

void hand_over_file_job(const received_command& c, std::span<const uint8_t> data_head)
{
    if (!refuse_if_too_long(c, file_payload_max) && !refuse_if_cut(c)) {
        if (mailbox_put(data_head.first(data_head_bytes + c.len), {c.head, message_head_bytes}) == 0) { return; }
        daemon_count.refused[refusal::no_thread].add();
        log_print(LOG_HERE, "command 0x%02x from 0x%08x refused: no thread serves file jobs\n", c.code, c.requester);
    }
    refuse_file_job(c);
}

void log_text(const received_command& c)
{
    const std::string_view text{reinterpret_cast<const char*>(c.payload.data()), c.payload.size()};
    log_print(LOG_HERE, "++++++++++recv msg: ' %s ' \n", printable(text.substr(0, text.find('\0'))).text);
}

bool is_data_message(std::span<const uint8_t> bytes)
{
    if (bytes.size() < message_head_bytes) { return false; }
    const auto type = static_cast<int16_t>(load_le16(bytes.data() + message::msg_type));
    const auto kind = static_cast<int16_t>(load_le16(bytes.data() + message::msg_class));
    return kind == data_class && (type == 0 || type == 1);
}

void print_foreign(std::span<const uint8_t> bytes)
{
    constexpr char digits[] = "0123456789abcdef"; // without printf: a message may have 64 KiB
    std::array<char, 1200 * 3 + 1> text; // a part in one call, so that no thread's log line comes into the middle of it
    size_t used = 0;
    for (const uint8_t byte : bytes) {
        for (const char shown : {digits[byte >> 4], digits[byte & 0xF], ' '}) { text[used++] = shown; }
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
    if (WexApipcInit() != 0) { return log_print(LOG_HERE, "create apipc wex fail\n"); }
    log_print(LOG_HERE, "create apipc wex succeed\n");
    daemon_count.endpoint_registered.set(1);
    for (;;) { static_cast<void>(apipc_loop_wait(0, ApipcEventDeal)); } // returns after a pause on each error
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

int32_t ApipcDataProc(std::span<const uint8_t> message, std::span<const uint8_t> data_head)
{
    const received_command c = parse_command(message.data(), message.subspan(message::payload));
    log_print(LOG_HERE, "aptid:0x%x index:%d slot:%x model:%x seq:%d code:%x addr:0x%x len:%d\n", c.requester, c.index,
              c.slot, c.model, c.seq, c.code, c.addr, c.len);
    const command_kind kind = kind_of(c.code);
    daemon_count.commands[kind].add();
    if (gbUpdateProcessRunning != 0) {
        daemon_count.dropped_in_update.add();
        log_print(LOG_HERE, "file proc running, ignored\n");
        return 0;
    }
    if (is_daemon(c.requester)) { // an answer to itself would be its next command
        daemon_count.refused[refusal::daemon].add();
        log_print(LOG_HERE, "command from 0x%08x ignored: a daemon asks for nothing\n", c.requester);
        return 0;
    }
    if (c.index == broadcast_index) {
        daemon_count.refused[refusal::broadcast].add();
        log_print(LOG_HERE, "broadcast not support\n");
        return 0;
    }
    switch (kind) {
    case command_kind::read: return read_card(c);
    case command_kind::write: write_plain(c); break;
    case command_kind::write_ack: write_acknowledged(c); break;
    case command_kind::file_write:
    case command_kind::file_read:
    case command_kind::update: hand_over_file_job(c, data_head); break;
    default:
        log_text(c);
        if (kind == command_kind::greeting) { apipc_first(c.requester); }
    }
    return 0;
}

} // namespace rvk
