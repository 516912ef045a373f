#include "ap_msg/message.h"

#include "base/bytes.h"
#include "base/counters.h"
#include "eth_raw/frame.h"
#include "main/log.h"
#include "mem/mem.h"
#include "platform/platform.h"
#include "queue/queue.h"

#include <algorithm>
#include <cstring>
#include <unistd.h>

namespace rvk {
namespace {

constexpr size_t update_type_bytes = 4;
constexpr uint32_t greeting_payload_bytes = 72; // message: 32 bytes of text and 40 zero bytes
constexpr char greeting_text[greeting_text_bytes] = "Hello, I am rvk module!";

uint8_t board() { return static_cast<uint8_t>(apcard_bit_self()); }
void store_result(uint8_t* head, int32_t result) { store_le32(head + message::result, static_cast<uint32_t>(result)); }

void store_data_class(uint8_t* head, size_t len)
{
    store_le16(head + message::msg_type, 0);
    store_le16(head + message::msg_class, static_cast<uint16_t>(data_class));
    store_le32(head + message::data_len, static_cast<uint32_t>(data_head_bytes + len));
}

// What all reports have; the rest of the head is left as it is.
void store_report(uint8_t* head, uint8_t code, int index, uint32_t addr, uint32_t recv_len, int32_t result)
{
    store_le32(head + message::aptid, own_identity());
    store_le32(head + message::length, recv_len + static_cast<uint32_t>(message_head_bytes));
    store_result(head, result);
    head[message::id] = GetIdByIndex(index);
    head[message::code] = code;
    store_le32(head + message::addr, addr);
    store_le16(head + message::len, static_cast<uint16_t>(recv_len));
}

// In one call, so that no other thread's output comes between its parts.
void print_head(const char* before, const uint8_t* head)
{
    std::array<char, 3 * message_head_bytes + 1> text;
    for (size_t i = 0; i < message_head_bytes; ++i) { snprintf(text.data() + 3 * i, 4, "%02x ", head[i]); }
    console_print(STDOUT_FILENO, "%s%s\n end ", before, text.data());
}

} // namespace

uint32_t own_identity() { return identity_of(board(), module_self); }
uint32_t companion_identity() { return identity_of(board(), module_companion); }

received_command parse_command(const uint8_t* head, std::span<const uint8_t> behind_data_head)
{
    received_command c{};
    c.head = head;
    c.requester = load_le32(head + message::aptid);
    c.index = GetIndexById(head[message::id]);
    c.code = head[message::code];
    c.slot = head[message::slot];
    c.model = load_le16(head + message::model);
    c.seq = load_le16(head + message::seq);
    c.len = load_le16(head + message::len);
    c.addr = load_le32(head + message::addr);
    c.payload = behind_data_head.first(std::min<size_t>(behind_data_head.size(), c.len));
    return c;
}

int32_t read_path(std::span<const uint8_t> payload, size_t at, size_t path_max, job_path* path)
{
    const auto text = payload.subspan(std::min(at, payload.size()));
    const auto end = std::find(text.begin(), text.end(), 0);
    const auto length = static_cast<size_t>(end - text.begin());
    if (end == text.end()) {
        log_print(LOG_HERE, "file path refused: it is not terminated within its %zu bytes\n", text.size());
        return -1;
    }
    if (length > path_max) {
        log_print(LOG_HERE, "file path refused: %zu characters, at most %zu\n", length, path_max);
        return -1;
    }
    path->fill('\0');
    std::copy_n(text.begin(), length, path->begin());
    return 0;
}

int32_t read_picture_job(std::span<const uint8_t> payload, size_t path_max, picture_size* size, job_path* path)
{
    if (payload.size() < picture_job::path) {
        log_print(LOG_HERE, "picture job refused: %zu bytes are too short for a size and a path\n", payload.size());
        return -1;
    }
    *size = {load_le32(&payload[picture_job::hor]), load_le32(&payload[picture_job::ver])};
    if (read_path(payload, picture_job::path, path_max, path) != 0) { return -1; }
    if (size->hor > side_max || size->ver > side_max) {
        log_print(LOG_HERE, "picture %u x %u refused: hor and ver are at most %u; nothing was sent\n", size->hor,
                  size->ver, side_max);
        return -1;
    }
    if (uint64_t{size->hor} * size->ver > pixels_max) {
        log_print(LOG_HERE, "picture %u x %u refused: it has at most %llu pixels; nothing was sent\n", size->hor,
                  size->ver, static_cast<unsigned long long>(pixels_max));
        return -1;
    }
    return 0;
}

uint8_t* ApMsgBuffGet(unsigned n)
{
    const unsigned bytes = n + static_cast<unsigned>(message_head_bytes); // wraps for what is refused
    void* const block = n <= message_bytes_max - message_head_bytes ? mem_alloc(bytes) : nullptr;
    if (block == nullptr) { return log_print(LOG_HERE, "RawMsgBuffGet fail\n"), nullptr; }
    return static_cast<uint8_t*>(memset(block, 0, bytes)) + message::payload;
}

uint8_t* ApMsgBuffHeadGet(uint8_t* handle) { return handle - message::payload; }

void ApMsgBuffFree(uint8_t* handle)
{
    if (handle != nullptr) { mem_free(ApMsgBuffHeadGet(handle)); }
}

void make_reply(uint8_t* head, const received_command& to, int32_t result, uint32_t length)
{
    memcpy(head, to.head, message::payload);
    store_le32(head + message::aptid, own_identity());
    store_le32(head + message::length, length);
    store_result(head, result);
    head[message::module] = module_self;
}

void send_reply(const received_command& to, int32_t result)
{
    std::array<uint8_t, message_head_bytes> reply;
    std::copy_n(to.head, reply.size(), reply.begin()); // the two bytes behind the data head go back, too
    make_reply(reply.data(), to, result, 0);
    static_cast<void>(ApipcDataSendAck(to.requester, reply.data())); // one that is gone is the outbox's to log
}

void send_update_response(const received_command& to, int32_t result)
{
    std::array<uint8_t, message_head_bytes + update_type_bytes> response{};
    make_reply(response.data(), to, result, 0); // length 0, although four bytes follow
    std::copy_n(to.payload.begin(), std::min(to.payload.size(), update_type_bytes),
                response.begin() + message::payload);
    static_cast<void>(ApipcDataSend(to.requester, response.data(), update_type_bytes));
}

void refuse_file_job(const received_command& to)
{
    if (to.code == command::file_write) { send_reply(to, -1); }
    if (to.code == command::update) { send_update_response(to, -1); }
}

void apipc_first(uint32_t requester)
{
    uint8_t* buffer = ApMsgBuffGet(frame_data_max);
    if (buffer == nullptr) { return daemon_count.refused[refusal::no_memory].add(); }
    uint8_t* head = ApMsgBuffHeadGet(buffer);
    store_le32(head + message::aptid, own_identity());
    store_le32(head + message::length, greeting_payload_bytes);
    store_data_class(head, greeting_text_bytes);
    head[message::code] = command::greeting;
    store_le16(head + message::len, greeting_text_bytes);
    memcpy(buffer, greeting_text, sizeof greeting_text);
    const int result = ApipcDataSend(requester, head, greeting_payload_bytes);
    log_print(LOG_HERE, "send ' %s ' ret : %d\n", greeting_text, result);
    ApMsgBuffFree(buffer);
}

std::array<uint8_t, message_head_bytes> write_report(int index, uint32_t addr, int32_t result)
{
    std::array<uint8_t, message_head_bytes> head{};
    store_report(head.data(), command::write_ack, index, addr, 0, result);
    store_data_class(head.data(), 0);
    return head;
}

void report_end(const QNode* node, int32_t result)
{
    if (node->dest == nullptr) { return WriteAckResultReport(node, result); }
    ReadResultReport(node, result);
    ApMsgBuffFree(node->dest);
}

void WriteAckResultReport(const QNode* node, int32_t result)
{
    const auto head = write_report(node->index, node->addr, result);
    char before[64];
    snprintf(before, sizeof before, "WriteAckResultReport result:%d", result);
    print_head(before, head.data());
    static_cast<void>(ApipcDataSendAck(node->requester, head.data())); // nobody is left to tell
}

void ReadResultReport(const QNode* node, int32_t result)
{
    uint8_t* head = ApMsgBuffHeadGet(node->dest);
    store_report(head, command::read, node->index, node->addr, node->recv_len, result);
    print_head("", head);
    static_cast<void>(ApipcDataSend(node->requester, head, result == 0 ? node->recv_len : 0));
}

void apipc_test()
{
    constexpr uint32_t test_addr = 0x10000;
    constexpr uint16_t test_len = 10;
    uint8_t* buffer = ApMsgBuffGet(frame_data_max);
    if (buffer == nullptr) { return; }
    uint8_t* head = ApMsgBuffHeadGet(buffer);
    store_report(head, command::read, 0, test_addr, 0, 0); // a request has a report's fields: only its length differs
    store_le16(head + message::len, test_len);
    log_print(LOG_HERE, "send ret : %d\n", ApipcDataSend(identity_of(board(), module_test), head, test_len));
    ApMsgBuffFree(buffer);
}

void print_buf(const uint8_t* bytes, size_t count)
{
    for (size_t i = 0; i < count; ++i) { console_print(STDOUT_FILENO, i % 16 == 0 ? "\n%02x " : "%02x ", bytes[i]); }
    console_print(STDOUT_FILENO, "\n");
}

} // namespace rvk
