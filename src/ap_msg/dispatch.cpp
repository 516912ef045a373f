#include "ap_msg/dispatch.h"

#include "ap_msg/mailbox.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/counters.h"
#include "eth_raw/frame.h"
#include "main/log.h"
#include "platform/platform.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <string_view>

namespace rvk {
namespace {

constexpr int broadcast_index = 15;                                  // message: no unit id maps to it
constexpr uint32_t near_ticks = 3;                                   // ours: a read from slot 1
constexpr uint32_t far_ticks = 6;                                    // ours: every other exchange
constexpr size_t file_payload_max = mailbox_bytes - data_head_bytes; // 1,010

// A command as its message carries it. `payload` is what the message holds of it, at most `len` bytes.
struct request_fields {
    const uint8_t* head; // the message's first 40 bytes
    uint32_t requester;
    int index;
    uint8_t code, slot;
    uint16_t model, seq, len;
    uint32_t addr;
    std::span<const uint8_t> payload;
};

request_fields fields_of(std::span<const uint8_t> message)
{
    const uint8_t* m = message.data();
    request_fields r{};
    r.head = m;
    r.requester = load_le32(m + message::aptid);
    r.index = GetIndexById(m[message::id]);
    r.code = m[message::code];
    r.slot = m[message::slot];
    r.model = load_le16(m + message::model);
    r.seq = load_le16(m + message::seq);
    r.len = load_le16(m + message::len);
    r.addr = load_le32(m + message::addr);
    r.payload = message.subspan(message::payload);
    r.payload = r.payload.first(std::min<size_t>(r.payload.size(), r.len));
    return r;
}

// Of any board.
bool is_daemon(uint32_t identity) { return (identity >> 8 & 0xFF) == module_self; }

bool is_cut(const request_fields& r) { return r.payload.size() < r.len; }

// The companion waits for every write; others do not wait for writes to the low addresses of the device's own card.
bool is_waited_for(const request_fields& r)
{
    if (r.requester == companion_identity()) { return true; }
    return r.slot != 1 || r.model != 0 || (r.addr & 0xF0000000u) != 0;
}

void refuse_cut(const request_fields& r)
{
    daemon_count.refused[refusal::cut].add();
    log_print(LOG_HERE, "command 0x%02x from 0x%08x refused: len %u, but its message holds %zu bytes of it\n", r.code,
              r.requester, r.len, r.payload.size());
}

void refuse_too_long(const request_fields& r, size_t limit)
{
    daemon_count.refused[refusal::too_long].add();
    log_print(LOG_HERE, "command 0x%02x from 0x%08x refused: len %u, at most %zu\n", r.code, r.requester, r.len, limit);
}

int32_t read_card(const request_fields& r)
{
    if (r.len > frame_data_max) {
        refuse_too_long(r, frame_data_max);
        send_reply(r.head, -1);
        return 0;
    }
    uint8_t* buffer = ApMsgBuffGet(frame_data_max);
    if (buffer == nullptr) {
        daemon_count.refused[refusal::no_memory].add();
        log_print(LOG_HERE, "RawMsgBuffGet fail\n");
        return -1;
    }
    uint8_t* head = ApMsgBuffHeadGet(buffer);
    memcpy(head, r.head, message::payload);
    uint32_t received = 0;
    int32_t result = 0;
    {
        const scoped_lock hold(demo_mutex);
        result = RawSockSendMsgWithReadWait(r.index, r.model, r.slot, r.addr, code_read, r.len,
                                            {buffer, frame_data_max}, &received, r.slot == 1 ? near_ticks : far_ticks);
    }
    if (result == 0) {
        const uint32_t requester = make_reply(head, 0, received);
        static_cast<void>(ApipcDataSend(requester, head, received)); // one that is gone is the outbox's to log
        log_print(LOG_HERE, "RawSockSendMsgWithReadWait response ok\n");
    } else {
        send_reply(r.head, -1);
        log_print(LOG_HERE, "RawSockSendMsgWithReadWait response not ok\n");
    }
    ApMsgBuffFree(buffer);
    return 0;
}

void write_plain(const request_fields& r)
{
    if (is_cut(r)) { return refuse_cut(r); }
    if (RawSockSendMsg(r.index, r.model, r.slot, r.addr, code_write, r.payload) != 0) {
        log_print(LOG_HERE, "ApipcDataProc RawSockSendMsg fail\n");
    }
}

void write_waited(const request_fields& r)
{
    uint8_t ack = 0; // not examined: an answer is a success, whatever its status
    int32_t result = 0;
    {
        const scoped_lock hold(demo_mutex);
        result =
            RawSockSendMsgWithAckWait(r.index, r.model, r.slot, r.addr, code_write_ack, r.payload, &ack, far_ticks);
    }
    log_print(LOG_HERE, "RawSockSendMsgWithAckWait response %s\n", result == 0 ? "ok" : "not ok");
    send_reply(r.head, result == 0 ? 0 : -1);
}

void write_unwaited(const request_fields& r)
{
    if (RawSockSendMsgWithAck(r.requester, r.index, r.model, r.slot, r.addr, code_write_ack, r.payload) != 0) {
        log_print(LOG_HERE, "ApipcDataProc RawSockSendMsgWithAck fail\n");
    }
}

// Such a write is answered only when it fails.
void report_failed_write(const request_fields& r)
{
    std::array<uint8_t, message_head_bytes> head;
    make_write_report(head.data(), r.index, r.addr, -1);
    static_cast<void>(ApipcDataSendAck(r.requester, head.data()));
}

void write_acknowledged(const request_fields& r)
{
    const bool waited = is_waited_for(r);
    if (is_cut(r)) {
        refuse_cut(r);
        return waited ? send_reply(r.head, -1) : report_failed_write(r);
    }
    return waited ? write_waited(r) : write_unwaited(r);
}

void hand_over_file_job(const request_fields& r, std::span<const uint8_t> data_head)
{
    if (r.len > file_payload_max) {
        refuse_too_long(r, file_payload_max);
        return refuse_file_job(r.head, r.payload);
    }
    if (is_cut(r)) {
        refuse_cut(r);
        return refuse_file_job(r.head, r.payload);
    }
    if (mailbox_put(data_head.first(data_head_bytes + r.len), {r.head, message_head_bytes}) != 0) {
        daemon_count.refused[refusal::no_thread].add();
        log_print(LOG_HERE, "command 0x%02x from 0x%08x refused: no thread serves file jobs\n", r.code, r.requester);
        refuse_file_job(r.head, r.payload);
    }
}

void log_text(const request_fields& r)
{
    const std::string_view text{reinterpret_cast<const char*>(r.payload.data()), r.payload.size()};
    log_print(LOG_HERE, "++++++++++recv msg: ' %s ' \n", printable(text.substr(0, text.find('\0'))).text);
}

command_kind kind_of_command(uint8_t code)
{
    switch (code) {
    case command::read: return command_kind::read;
    case command::write: return command_kind::write;
    case command::write_ack: return command_kind::write_ack;
    case command::file_write: return command_kind::file_write;
    case command::file_read: return command_kind::file_read;
    case command::update: return command_kind::update;
    case command::greeting: return command_kind::greeting;
    default: return command_kind::other;
    }
}

} // namespace

int32_t ApipcDataProc(std::span<const uint8_t> message, std::span<const uint8_t> data_head)
{
    const request_fields r = fields_of(message);
    log_print(LOG_HERE, "aptid:0x%x index:%d slot:%x model:%x seq:%d code:%x addr:0x%x len:%d\n", r.requester, r.index,
              r.slot, r.model, r.seq, r.code, r.addr, r.len);
    daemon_count.commands[kind_of_command(r.code)].add();
    if (gbUpdateProcessRunning != 0) {
        daemon_count.dropped_in_update.add();
        log_print(LOG_HERE, "file proc running, ignored\n");
        return 0;
    }
    if (is_daemon(r.requester)) { // an answer to itself would be its next command
        daemon_count.refused[refusal::daemon].add();
        log_print(LOG_HERE, "command from 0x%08x ignored: a daemon asks for nothing\n", r.requester);
        return 0;
    }
    if (r.index == broadcast_index) {
        daemon_count.refused[refusal::broadcast].add();
        log_print(LOG_HERE, "broadcast not support\n");
        return 0;
    }
    switch (r.code) {
    case command::read: return read_card(r);
    case command::write: write_plain(r); break;
    case command::write_ack: write_acknowledged(r); break;
    case command::file_write:
    case command::file_read:
    case command::update: hand_over_file_job(r, data_head); break;
    case command::greeting:
        log_text(r);
        apipc_first(r.requester);
        break;
    default: log_text(r); break;
    }
    return 0;
}

void apipc_first(uint32_t requester)
{
    constexpr char text[greeting_text_bytes] = "Hello, I am rvk module!";
    uint8_t* buffer = ApMsgBuffGet(frame_data_max);
    if (buffer == nullptr) {
        daemon_count.refused[refusal::no_memory].add();
        log_print(LOG_HERE, "RawMsgBuffGet fail\n");
        return;
    }
    uint8_t* head = ApMsgBuffHeadGet(buffer);
    make_greeting(head);
    memcpy(buffer, text, sizeof text);
    const int result = ApipcDataSend(requester, head, greeting_payload_bytes);
    log_print(LOG_HERE, "send ' %s ' ret : %d\n", text, result);
    ApMsgBuffFree(buffer);
}

void apipc_test()
{
    constexpr uint32_t test_addr = 0x10000;
    constexpr uint16_t test_len = 10;
    uint8_t* buffer = ApMsgBuffGet(frame_data_max);
    if (buffer == nullptr) {
        log_print(LOG_HERE, "RawMsgBuffGet fail\n");
        return;
    }
    uint8_t* head = ApMsgBuffHeadGet(buffer);
    make_read_report(head, 0, test_addr, 0, 0); // a request has the fields of a report: only its length differs
    store_le16(head + message::len, test_len);
    const uint32_t test_module = identity_of(static_cast<uint8_t>(apcard_bit_self()), module_test);
    log_print(LOG_HERE, "send ret : %d\n", ApipcDataSend(test_module, head, test_len));
    ApMsgBuffFree(buffer);
}

} // namespace rvk
