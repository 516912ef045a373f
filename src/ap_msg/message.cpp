#include "ap_msg/message.h"

#include "ap_msg/outbox.h"
#include "base/bytes.h"
#include "main/log.h"
#include "mem/mem.h"
#include "platform/platform.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <unistd.h>

namespace rvk {
namespace {

constexpr uint8_t unit_id = 254; // message: the unit that every report names
constexpr uint8_t update_type_bytes = 4;

uint8_t board() { return static_cast<uint8_t>(apcard_bit_self()); }

void store_data_class(uint8_t* head, uint32_t len)
{
    store_le16(head + message::msg_type, 0);
    store_le16(head + message::msg_class, static_cast<uint16_t>(data_class));
    store_le32(head + message::data_len, data_head_bytes + len);
}

} // namespace

uint32_t own_identity() { return identity_of(board(), module_self); }

uint32_t companion_identity() { return identity_of(board(), module_companion); }

int GetIndexById(uint8_t id)
{
    switch (id) {
    case 240:
    case 253:
    case 254: return 0;
    default: return 0; // an id that nobody assigned stands for link 0 too
    }
}

uint8_t GetIdByIndex(int) { return unit_id; }

uint8_t* ApMsgBuffGet(unsigned n)
{
    if (n > message_len_max) { return nullptr; } // the sum below would wrap
    const unsigned bytes = n + static_cast<unsigned>(message_head_bytes);
    auto* block = static_cast<uint8_t*>(mem_alloc(bytes));
    if (block == nullptr) { return nullptr; }
    memset(block, 0, bytes);
    return block + message::payload;
}

uint8_t* ApMsgBuffHeadGet(uint8_t* handle) { return handle - message::payload; }

void ApMsgBuffFree(uint8_t* handle)
{
    if (handle != nullptr) { mem_free(ApMsgBuffHeadGet(handle)); }
}

int ApipcDataSend(uint32_t destination, const uint8_t* message, uint32_t n)
{
    return send_or_keep(destination, message, n + static_cast<uint32_t>(message_head_bytes));
}

int ApipcDataSendAck(uint32_t destination, const uint8_t* message) { return ApipcDataSend(destination, message, 0); }

uint32_t make_reply(uint8_t* head, int32_t result, uint32_t length)
{
    const uint32_t requester = load_le32(head + message::aptid);
    store_le32(head + message::aptid, own_identity());
    store_le32(head + message::length, length);
    store_le32(head + message::result, static_cast<uint32_t>(result));
    head[message::module] = module_self;
    return requester;
}

void send_reply(const uint8_t* request_head, int32_t result)
{
    std::array<uint8_t, message_head_bytes> head;
    std::copy_n(request_head, head.size(), head.begin());
    const uint32_t requester = make_reply(head.data(), result, 0);
    static_cast<void>(ApipcDataSendAck(requester, head.data())); // one that is gone is the outbox's to log
}

void send_update_response(const uint8_t* request_head, std::span<const uint8_t> payload, int32_t result)
{
    std::array<uint8_t, message_head_bytes + update_type_bytes> response{};
    std::copy_n(request_head, message::payload, response.begin());
    const uint32_t requester = make_reply(response.data(), result, 0); // length 0, although four bytes follow
    std::copy_n(payload.begin(), std::min<size_t>(payload.size(), update_type_bytes),
                response.begin() + message::payload);
    static_cast<void>(ApipcDataSend(requester, response.data(), update_type_bytes));
}

void refuse_file_job(const uint8_t* request_head, std::span<const uint8_t> payload)
{
    const uint8_t code = request_head[message::code];
    if (code == command::file_write) { send_reply(request_head, -1); }
    if (code == command::update) { send_update_response(request_head, payload, -1); }
}

void make_write_report(uint8_t* head, int index, uint32_t addr, int32_t result)
{
    memset(head, 0, message_head_bytes);
    store_le32(head + message::aptid, own_identity());
    store_le32(head + message::length, static_cast<uint32_t>(message_head_bytes));
    store_le32(head + message::result, static_cast<uint32_t>(result));
    store_data_class(head, 0);
    head[message::id] = GetIdByIndex(index);
    head[message::code] = command::write_ack;
    store_le32(head + message::addr, addr);
}

void make_read_report(uint8_t* head, int index, uint32_t addr, uint32_t recv_len, int32_t result)
{
    store_le32(head + message::aptid, own_identity());
    store_le32(head + message::length, recv_len + static_cast<uint32_t>(message_head_bytes));
    store_le32(head + message::result, static_cast<uint32_t>(result));
    head[message::id] = GetIdByIndex(index);
    head[message::code] = command::read;
    store_le32(head + message::addr, addr);
    store_le16(head + message::len, static_cast<uint16_t>(recv_len));
}

void make_greeting(uint8_t* head)
{
    memset(head, 0, message::payload);
    store_le32(head + message::aptid, own_identity());
    store_le32(head + message::length, greeting_payload_bytes);
    store_data_class(head, greeting_text_bytes);
    head[message::code] = command::greeting;
    store_le16(head + message::len, greeting_text_bytes);
}

void print_buf(const uint8_t* bytes, size_t count)
{
    for (size_t i = 0; i < count; ++i) { console_print(STDOUT_FILENO, i % 16 == 0 ? "\n%02x " : "%02x ", bytes[i]); }
    console_print(STDOUT_FILENO, "\n");
}

} // namespace rvk
