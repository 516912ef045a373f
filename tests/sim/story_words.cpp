// What a story's sender, requester and card saw, in words.
#include "sim/story.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/counters.h"
#include "eth_raw/frame.h"

namespace rvk {
namespace {

constexpr uint32_t own_identity_here = 0x010A3B00;

} // namespace

std::string joined(words all)
{
    std::string text;
    while (!all.empty()) {
        const std::string word = all.front();
        const auto times = std::erase(all, word);
        text += (text.empty() ? "" : ", ") + word + (times > 1 ? " *" + std::to_string(times) : "");
    }
    return text;
}

std::map<std::string, uint64_t> figures_now(const world& w)
{
    std::map<std::string, uint64_t> f{{"printed", static_cast<uint64_t>(w.errors_printed)}};
    for (link_counters& c : link_count) {
        f["resends"] += c.resends.get();
        f["given_up"] += c.given_up.get();
        f["wrong_acks"] += c.wrong_acks.get();
        f["took_ms"] += c.answer_time_us.get() / 1000;
        for (size_t i = 0; i < drop_names.size(); ++i) { f[drop_names[i]] += c.dropped.all[i].get(); }
        for (size_t i = 0; i < send_failure_names.size(); ++i) {
            f[send_failure_names[i]] += c.send_failed.all[i].get();
        }
    }
    for (size_t i = 0; i < refusal_names.size(); ++i) { f[refusal_names[i]] += daemon_count.refused.all[i].get(); }
    f["dropped_in_update"] = daemon_count.dropped_in_update.get();
    return f;
}

std::string bytes_said(std::span<const uint8_t> all, size_t n, uint32_t addr)
{
    const auto rest = all.subspan(n);
    const bool kept = std::ranges::count(rest, untouched) == std::ssize(rest);
    return kept && std::ranges::equal(all.first(n), data_at(addr, n)) ? std::to_string(n) + " bytes" : "wrong bytes";
}

std::string heard(const story& s, const sent_message& m, const bytes_t& carried)
{
    const bytes_t& b = m.bytes;
    const uint32_t addr = load_le32(&b[message::addr]), length = load_le32(&b[message::length]);
    const size_t n = b.size() - message_head_bytes;
    const uint8_t code = b[message::code];
    const bool echoes = load_le32(&b[message::word1]) == asked_word1;
    const std::string word = echoes ? "reply " : "report ",
                      result = std::to_string(static_cast<int32_t>(load_le32(&b[message::result])));
    if (m.to != (s.has("companion") ? companion : client) || load_le32(&b[message::aptid]) != own_identity_here) {
        return "wrong identity";
    }
    if (code == command::greeting) { return n == 72 && length == 72 ? "greeting" : "wrong greeting"; }
    if (echoes ? b[message::module] != module_self : b[message::id] != 254 || length != b.size()) {
        return "wrong head";
    }
    if (code == command::update) {
        bytes_t type = carried;
        type.resize(std::min<size_t>(type.size(), 4)), type.resize(4);
        return n == 4 && length == 0 && std::equal(type.begin(), type.end(), &b[message::payload])
                   ? "response " + result
                   : "wrong response";
    }
    if ((addr - s.number("addr", usual_addr)) % frame_data_max != 0 || (echoes && length != n)) { return "wrong head"; }
    if (n == 0) { return word + result; }
    if (result != "0" || code != command::read || (!echoes && load_le16(&b[message::len]) != n)) {
        return "wrong data";
    }
    return (s.is_request() ? "" : word) + bytes_said(std::span(b).subspan(message::payload, n), n, addr);
}

words judged(const story& s, const std::vector<bytes_t>& frames)
{
    words wrong;
    std::map<uint32_t, bytes_t> seen;
    request_fields before;
    for (const bytes_t& frame : frames) {
        request_fields f;
        if (check_request(frame, f) != verdict::good) { return {"a bad frame"}; }
        if (s.is("update")) { continue; }
        const bool is_new = seen.emplace(f.addr, frame).second, is_numbered = f.code != code_write;
        const uint32_t at = f.addr - s.number("addr", usual_addr);
        const bool follows = seen.size() == 1 || f.seq == static_cast<uint16_t>(before.seq + (is_numbered ? 1 : 0));
        const bool right_head =
            f.model == s.number("model", 0) && f.slot == s.number("slot", 1) && at % frame_data_max == 0;
        const bool right_len = at < s.size() && f.len == std::min(s.size() - at, frame_data_max);
        const bool right_data = f.code == code_read || std::ranges::equal(f.data, data_at(f.addr, f.len));
        if (!is_new && seen[f.addr] != frame) { wrong.emplace_back("resent with changes"); }
        if (is_new && !(follows && right_head && right_len && right_data)) { wrong.emplace_back("a wrong frame"); }
        if (is_new) { before = f; }
    }
    return wrong;
}

} // namespace rvk
