// See the header.
#include "rvkctl/fake_daemon.h"

#include "ap_msg/message.h"
#include "base/bytes.h"

#include <algorithm>
#include <csignal>
#include <cstring>
#include <stdexcept>
#include <unistd.h>

namespace rvk {
namespace {

constexpr std::chrono::milliseconds poll_interval{20};
constexpr char greeting_text[] = "Hello, I am rvk module!";

seen_command taken_apart(const std::vector<uint8_t>& m)
{
    const uint8_t* const p = m.data();
    return {.sender = load_le32(p + message::aptid),
            .code = p[message::code],
            .slot = p[message::slot],
            .id = p[message::id],
            .model = load_le16(p + message::model),
            .seq = load_le16(p + message::seq),
            .addr = load_le32(p + message::addr),
            .len = load_le16(p + message::len),
            .payload = {m.begin() + message::payload, m.end() - (message_head_bytes - message::payload)}};
}

bool is_unwaited(const seen_command& c)
{
    const bool companion = (c.sender & 0x00FFFFFF) == 0x000A3C00;
    return c.code == command::write_ack && !companion && c.slot == 1 && c.model == 0 && c.addr < 0x10000000;
}

} // namespace

fake_daemon::fake_daemon(const manners& given, uint8_t board) : how(given), own(identity_of(board, module_self))
{
    if (endpoint.open(own) != endpoint_status::ok || stranger.open(own + 1) != endpoint_status::ok) {
        throw std::runtime_error("no endpoint for the fake daemon");
    }
    thread = std::thread([this] { serve(); });
}

fake_daemon::~fake_daemon() { finish(); }

std::vector<seen_command> fake_daemon::finish()
{
    stop = true;
    if (thread.joinable()) { thread.join(); }
    return seen;
}

void fake_daemon::serve()
{
    while (!stop) {
        const message_bytes request = endpoint.receive(poll_interval);
        if (request.size() < message_head_bytes) { continue; }
        seen.push_back(taken_apart(request));
        handle(request, seen.back());
    }
}

void fake_daemon::handle(const message_bytes& request, const seen_command& asked)
{
    if (how.interrupts_at-- == 0) { kill(getpid(), SIGINT); }
    if (how.strays_first) { send_strays(request, asked.sender); }
    if (asked.code == command::greeting) {
        if (how.greetings-- > 0) { greet(asked.sender); }
        for (const seen_command& write : to_report) {
            std::this_thread::sleep_for(how.report_delay);
            report(write);
        }
        to_report.clear();
        return;
    }
    if (asked.code != command::read) {
        for (size_t i = 0; i < asked.payload.size(); ++i) {
            memory[asked.addr + static_cast<uint32_t>(i)] = asked.payload[i];
        }
    }
    if (is_unwaited(asked) && how.reports-- > 0) {
        if (how.report_delay.count() == 0) {
            report(asked);
        } else {
            to_report.push_back(asked);
        }
    }
    if (!how.answers || is_unwaited(asked) || asked.code == command::write) { return; }
    if (asked.code == command::read) {
        answer_read(request, asked);
    } else {
        answer(request, asked.sender, next_result(), {});
    }
}

void fake_daemon::greet(uint32_t to)
{
    message_bytes m(message_head_bytes + 72);
    store_le32(m.data() + message::aptid, own);
    store_le32(m.data() + message::length, 72);
    store_le16(m.data() + message::msg_class, 28);
    store_le32(m.data() + message::data_len, 46);
    m[message::code] = command::greeting;
    store_le16(m.data() + message::len, 32);
    memcpy(m.data() + message::payload, greeting_text, sizeof greeting_text);
    static_cast<void>(endpoint.send(to, m));
}

void fake_daemon::report(const seen_command& write)
{
    message_bytes m(message_head_bytes);
    store_le32(m.data() + message::aptid, own);
    store_le32(m.data() + message::length, 40);
    store_le32(m.data() + message::result, UINT32_MAX);
    store_le16(m.data() + message::msg_class, 28);
    store_le32(m.data() + message::data_len, 14);
    m[message::id] = 254;
    m[message::code] = command::write_ack;
    store_le32(m.data() + message::addr, write.addr + how.report_offset);
    static_cast<void>(endpoint.send(write.sender, m));
}

// Each differs in one field from the answer that is waited for, and says no.
void fake_daemon::send_strays(const message_bytes& request, uint32_t to)
{
    message_bytes stray(request.begin(), request.begin() + message_head_bytes);
    store_le32(stray.data() + message::aptid, own);
    store_le32(stray.data() + message::result, UINT32_MAX);
    stray[message::code] ^= 0x40; // for the greeting too
    static_cast<void>(endpoint.send(to, stray));
    stray[message::code] = request[message::code];
    store_le32(stray.data() + message::aptid, own + 1);
    static_cast<void>(stranger.send(to, stray));
    store_le32(stray.data() + message::aptid, own);
    if (request[message::code] == command::greeting) { return; }
    for (const size_t field : {message::seq, message::addr, message::slot, message::model}) {
        stray[field] ^= 0x01;
        static_cast<void>(endpoint.send(to, stray));
        stray[field] ^= 0x01;
    }
    static_cast<void>(endpoint.send(to, std::span(stray).first(20)));
}

void fake_daemon::answer_read(const message_bytes& request, const seen_command& asked)
{
    const int32_t result = next_result();
    message_bytes data(result == 0 ? asked.len - std::min<size_t>(asked.len, how.data_missing) : 0);
    for (size_t i = 0; i < data.size(); ++i) { data[i] = memory[asked.addr + static_cast<uint32_t>(i)]; }
    const uint32_t place = how.spoilt.value_or(0) - asked.addr;
    if (how.spoilt && how.spoilt_after-- <= 0 && place < data.size()) { data[place] ^= 1; }
    answer(request, asked.sender, result, data);
}

void fake_daemon::answer(const message_bytes& request, uint32_t to, int32_t result, std::span<const uint8_t> data)
{
    message_bytes m(message_head_bytes + data.size());
    std::copy_n(request.begin(), message_head_bytes, m.begin());
    store_le32(m.data() + message::aptid, own);
    m[message::module] = module_self;
    store_le32(m.data() + message::result, static_cast<uint32_t>(result));
    store_le32(m.data() + message::length, static_cast<uint32_t>(data.size()) + how.claims_more);
    std::copy(data.begin(), data.end(), m.begin() + message::payload);
    static_cast<void>(endpoint.send(to, m));
}

int32_t fake_daemon::next_result() { return how.good_answers-- > 0 ? 0 : how.result; }

} // namespace rvk
