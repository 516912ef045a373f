#include "link/soak_requester.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "eth_raw/frame.h"

#include <algorithm>
#include <cstdio>

namespace rvk {
namespace {

constexpr auto patience = std::chrono::seconds(60); // everybody's commands stand before ours, each up to 1.6 s
constexpr uint32_t gap = 16;                        // between two writes: what is written too far shows there
// Of all requesters' unwaited writes: above the registers by which a card takes pictures and is played, below those for
// which the daemon waits.
constexpr uint32_t unwaited_addr = 0x1000000, unwaited_bytes = 0x1E00000;
static_assert(unwaited_addr + 8 * unwaited_bytes <= 0x10000000);

bool is_write(soak_kind kind) { return kind != soak_kind::read; }

std::string in_words(const std::vector<uint8_t>& m)
{
    if (m.size() < message_head_bytes) { return "a message of " + std::to_string(m.size()) + " bytes"; }
    char text[100];
    std::snprintf(text, sizeof text, "code %u addr 0x%x result %d, %zu bytes", m[message::code],
                  load_le32(m.data() + message::addr), static_cast<int>(load_le32(m.data() + message::result)),
                  m.size());
    return text;
}

// Whether a message is one that the daemon may send about this piece.
bool fits(const soak_piece& piece, const std::vector<uint8_t>& m)
{
    const auto word = [&](size_t at) { return load_le32(m.data() + at); };
    const bool good = word(message::result) == 0;
    if (word(message::aptid) != own_identity() || (!good && word(message::result) != 0xFFFFFFFF)) { return false; }
    if (m[message::code] != (is_write(piece.kind) ? command::write_ack : command::read)) { return false; }
    if (piece.kind == soak_kind::unwaited_write) { return !good && word(message::length) == 40 && m.size() == 40; }
    const size_t data = piece.kind == soak_kind::read && good ? piece.len : 0;
    return word(message::length) == data && m.size() == message_head_bytes + data;
}

} // namespace

soak_requester::soak_requester(uint32_t number, uint64_t seed)
    : dice(seed), next_addr{soak_read_addr + number * 0x40000, 0x20000000 + number * 0x2000000,
                            unwaited_addr + number * unwaited_bytes}
{
}

uint32_t soak_requester::take_addr(soak_kind kind, size_t len)
{
    uint32_t& next = next_addr[static_cast<size_t>(kind)];
    const uint32_t addr = next;
    next += is_write(kind) ? static_cast<uint32_t>(len) + gap : 4;
    return addr;
}

void soak_requester::start(soak_kind kind, size_t len)
{
    const uint32_t first = take_addr(kind, len);
    for (size_t at = 0; at < len; at += frame_data_max) {
        const size_t bytes = std::min(len - at, frame_data_max);
        const bool last = at + bytes == len;
        const auto addr = static_cast<uint32_t>(first + at);
        const bool decides = kind != soak_kind::waited_write || last;
        booked.push_back({.kind = kind, .addr = addr, .len = static_cast<uint16_t>(bytes), .decides = decides});
        if (decides) { by_addr[kind == soak_kind::waited_write ? first : addr] = booked.size() - 1; }
    }
    const std::vector<uint8_t> payload = is_write(kind) ? pattern(first, len) : std::vector<uint8_t>{};
    const uint8_t code = is_write(kind) ? command::write_ack : command::read;
    const command_fields fields{
        .code = code, .slot = soak_slot_of(kind), .addr = first, .len = static_cast<uint16_t>(len)};
    ++sent;
    if (!send_command(endpoint, fields, payload)) { wrong.push_back("a command could not be sent"); }
}

// Until the command sent last is answered; what comes meanwhile are reports.
void soak_requester::await_answer()
{
    const size_t awaited = booked.size() - 1;
    while (booked[awaited].answers == 0) {
        const auto answer = endpoint.receive(patience);
        if (answer.empty()) {
            wrong.push_back("no answer");
            return;
        }
        book(answer);
    }
}

void soak_requester::book(const std::vector<uint8_t>& answer)
{
    const bool whole = answer.size() >= message_head_bytes;
    const auto found = whole ? by_addr.find(load_le32(answer.data() + message::addr)) : by_addr.end();
    if (found == by_addr.end() || !fits(booked[found->second], answer)) {
        wrong.push_back(in_words(answer));
        return;
    }
    soak_piece& piece = booked[found->second];
    ++piece.answers;
    piece.result = static_cast<int32_t>(load_le32(answer.data() + message::result));
    if (piece.kind != soak_kind::read || piece.result != 0) { return; }
    const std::vector<uint8_t> data = pattern(piece.addr, piece.len);
    piece.data_right = std::equal(data.begin(), data.end(), answer.begin() + message::payload);
}

void soak_requester::run(const soak_limits& limits)
{
    const auto up_to = [&](size_t max) { return static_cast<size_t>(1 + dice() % max); };
    while (now_us() < limits.end_us && sent < limits.commands && wrong.empty()) {
        switch (dice() % 5) {
        case 0:
            start(soak_kind::read, up_to(frame_data_max));
            await_answer();
            break;
        case 1:
            start(soak_kind::waited_write, up_to(dice() % 4 == 0 ? 2 * frame_data_max : 100));
            await_answer();
            break;
        default:
            for (size_t burst = up_to(20); burst > 0 && sent < limits.commands; --burst) {
                start(soak_kind::unwaited_write, up_to(dice() % 8 == 0 ? 3 * frame_data_max : 100));
            }
            break;
        }
    }
    start(soak_kind::read, 4); // commands are handled in order: behind its answer none is waiting
    await_answer();
}

void soak_requester::drain()
{
    for (;;) {
        const auto answer = endpoint.receive(std::chrono::milliseconds(20));
        if (answer.empty()) { return; }
        book(answer);
    }
}

} // namespace rvk
