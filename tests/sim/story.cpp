// Plays a story in a world of its own, and says what its sender, its requester and its card saw.
#include "sim/story.h"
#include "sim/world.h"

#include "ap_msg/dispatch.h"
#include "ap_msg/file_service.h"
#include "ap_msg/firmware.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/counters.h"
#include "eth_raw/frame.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/link_threads.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <cerrno>
#include <new>
#include <optional>
#include <utility>

namespace rvk {
namespace {

constexpr uint32_t client = 0x010A7F05, own_identity_here = 0x010A3B00, usual_addr = 0x1000;
constexpr uint32_t asked_word1 = 0xC0FFEE; // replies bring it back
constexpr uint8_t untouched = 0xEE;
constexpr char answers[] =
    " good short refused none empty most too_much other_number other_address other_kind unknown_code "
    "damaged lying tail stranger runt ";

// How many bytes came where they were to go, and whether they are those of the address; what is behind stays untouched.
std::string bytes_said(std::span<const uint8_t> all, size_t n, uint32_t addr)
{
    const bool kept = std::ranges::all_of(all.subspan(n), [](uint8_t byte) { return byte == untouched; });
    return kept && std::ranges::equal(all.first(n), data_at(addr, n)) ? std::to_string(n) + " bytes" : "wrong bytes";
}

struct player : story {
    world w{};
    bytes_t last{};                  // frame that a send was tried with
    std::deque<std::string> sends{}; // what the next ones come to
    uint64_t waited_us = 0;          // by a sender, for its answer
    uint64_t paused_us = 0;          // by a sender
    words how{};

    explicit player(const story& told) : story(told) {}

    std::map<std::string, uint64_t> figures_now() const
    {
        std::map<std::string, uint64_t> f{{"printed", w.errors_shown}, {"paused_ms", paused_us / 1000}};
        const auto add = [&f](const auto& names, auto& counters) {
            for (size_t i = 0; i < names.size(); ++i) { f[names[i]] += counters.all[i].get(); }
        };
        for (link_counters& c : link_count) {
            f["resends"] += c.resends.get();
            f["given_up"] += c.given_up.get();
            f["wrong_acks"] += c.wrong_acks.get();
            f["took_ms"] += c.answer_time_us.get() / 1000;
            add(drop_names, c.dropped), add(send_failure_names, c.send_failed);
        }
        add(refusal_names, daemon_count.refused);
        f["dropped_in_update"] = daemon_count.dropped_in_update.get();
        f["not_taken"] = daemon_count.messages_dropped.get();
        return f;
    }

    int queue() const
    {
        return is("write") ? ACK_QUEUE : is("write_wait") ? ACK_WAIT_QUEUE : is("read") ? READ_QUEUE : READ_WAIT_QUEUE;
    }

    long send(std::span<const uint8_t> frame)
    {
        static const std::map<std::string, int> errors{
            {"EAGAIN", EAGAIN}, {"ENOBUFS", ENOBUFS}, {"ENETDOWN", ENETDOWN}};
        last.assign(frame.begin(), frame.end());
        if (sends.empty()) { return std::ssize(frame); }
        const std::string fate = std::exchange(sends, {sends.begin() + 1, sends.end()}).front();
        return errors.contains(fate) ? -errors.at(fate) : std::ssize(frame) - (fate == "cut" ? 1 : 0);
    }

    void answer(const std::string& says)
    {
        request_fields request;
        if (check_request(last, request) != violation::none) { return how.push_back("no good frame to answer"); }
        const bool reads = request.code == code_read;
        const size_t usual = says == "empty" || !reads ? 0 : request.len;
        const bytes_t data = data_at(request.addr, says == "most" ? 1400 : says == "too_much" ? 1401 : usual);
        const uint8_t code = says == "short"          ? code_ack_short
                             : says == "unknown_code" ? 0x33
                             : says == "other_kind"   ? (reads ? code_write_ack : code_read)
                                                      : request.code;
        if (says == "other_number") { ++request.seq; }
        if (says == "other_address") { ++request.addr; }
        reply_frame reply;
        pack_reply(reply, request, says == "refused" ? 2 : says == "none" ? no_answer : ack_good, code, data);
        if (says == "damaged") { reply[reply::model] ^= 0x10; }
        if (says == "lying") { ++reply[reply::len], close_reply(reply); }
        if (says == "stranger") { reply[offsetof(ethernet_head, source)] ^= 1; }
        if (says == "runt") { reply.resize(reply::payload - 1); }
        if (says == "tail") { reply.push_back(0x77); }
        w.arrive(reply);
    }

    void play(const std::string& event)
    {
        static const std::map<std::string, std::pair<int, int>> periods{
            {"tick", {1, 1}}, {"expiry", {3, 1}}, {"burst", {1, 10}}, {"pass", {1, 0}}};
        const auto is_one_of = [&event](const std::string& all) { return all.find(' ' + event + ' ') != all.npos; };
        if (is_one_of(answers)) { return answer(event); }
        if (is_one_of(" ok EAGAIN ENOBUFS ENETDOWN cut ")) { return sends.push_back(event); }
        if (event == "emptied") { return empty_queue(); }
        if (event == "deaf") { return void(w.deaf = true); }
        if (!periods.contains(event)) { return how.push_back("no event " + event); }
        for (int i = 0; i < periods.at(event).first; ++i) { w.tick(periods.at(event).second); }
    }

    void play_all(std::deque<std::string>& events)
    {
        for (const std::string& event : std::exchange(events, {})) { play(event); }
    }

    void wait()
    {
        const uint64_t from = w.now_us;
        play(then.empty() ? "tick" : then.front());
        if (!then.empty()) { then.pop_front(); }
        waited_us += w.now_us - from;
    }

    void request()
    {
        const auto link = static_cast<int>(number("on", 0));
        const auto at = usual_addr, ticks = number("for", 3);
        const bytes_t data = data_at(at, n);
        bytes_t buffer(number("dest", frame_data_max) + 1, untouched);
        uint8_t* const area = is("read") ? ApMsgBuffGet(frame_data_max) : nullptr;
        w.blocks_left = static_cast<int>(number("blocks", SIZE_MAX));
        if (number("full", 0) != 0) { fill(); }
        const auto dest = std::span(buffer).first(buffer.size() - 1);
        uint8_t ack = 0;
        uint32_t got = 0;
        int32_t result = -2;
        const auto& again = RawSockSendMsgWithAckWait_Try_nTimes;
        if (is("plain")) { result = send_plain({link, 0, 1, at}, code_write, data); }
        if (is("write")) { result = RawSockSendMsgWithAck(client, link, 0, 1, at, code_write_ack, data); }
        if (is("write_wait")) { result = RawSockSendMsgWithAckWait(link, 0, 1, at, code_write_ack, data, &ack, ticks); }
        if (is("write_again")) { result = again(2, link, 0, 1, at, code_write_ack, data, &ack, ticks); }
        if (is("read")) { result = RawSockSendMsgWithRead(client, link, 0, 1, at, code_read, n, {area, dest.size()}); }
        if (is("read_wait")) { result = RawSockSendMsgWithReadWait(link, 0, 1, at, code_read, n, dest, &got, ticks); }
        if (result == -2) { how.push_back("no kind of request " + kind); }
        if (result != 0) { ApMsgBuffFree(area), how.emplace_back("failed"); }
        const uint8_t due = is("write_wait") || is("write_again") ? (result == 0 ? ack_good : no_answer) : 0;
        if (ack != due) { how.push_back("status " + std::to_string(ack)); }
        if (result != 0 && got != 0) { how.push_back(std::to_string(got) + " bytes said"); }
        if (is("read_wait") && result == 0) { how.push_back(bytes_said(buffer, got, at)); }
    }

    // Its queue has as many requests as it takes; space for one comes with a pause of its sender, if at all.
    void fill()
    {
        for (int32_t i = 0; i < queue_nodes_max; ++i) {
            auto* node = new (mem_alloc(sizeof(QNode))) QNode{};
            node->seq = static_cast<uint16_t>(i);
            static_cast<void>(queue_add(0, queue(), node));
        }
        w.on_pause = [this, pauses = 0u](uint64_t pause) mutable {
            QNode* oldest = Qlist[0][queue()];
            paused_us += pause;
            if (++pauses == number("space_after", 0)) { static_cast<void>(queue_del(0, queue(), &oldest)); }
        };
    }

    // As a sender does that still finds it full.
    void empty_queue()
    {
        const scoped_lock hold(find_check_mtx[0]);
        queue_empty(0, queue());
    }

    void command()
    {
        const auto len = number("len", 4), addr = number("addr", usual_addr);
        const bytes_t carried = data_at(addr, number("holds", len));
        bytes_t m(std::max(message_head_bytes, message::payload + carried.size()));
        store_le32(&m[message::aptid], number("from", client));
        store_le32(&m[message::word1], asked_word1);
        store_le16(&m[message::msg_class], 28);
        m[message::code] = static_cast<uint8_t>(n);
        m[message::slot] = static_cast<uint8_t>(number("slot", 1));
        store_le16(&m[message::model], static_cast<uint16_t>(number("model", 0)));
        store_le32(&m[message::addr], addr);
        store_le16(&m[message::len], static_cast<uint16_t>(len));
        std::ranges::copy(carried, m.begin() + message::payload);
        w.blocks_left = static_cast<int>(number("blocks", SIZE_MAX));
        gbUpdateProcessRunning = static_cast<int>(number("updating", 0));
        ApipcEventDeal(0, 0, m.data(), static_cast<int>(m.size()));
        gbUpdateProcessRunning = 0;
    }

    // One message in the words of the stories, and everything about it that the requester relies on.
    std::string heard(const bytes_t& b, uint32_t to) const
    {
        const uint32_t from = number("addr", usual_addr), addr = load_le32(&b[message::addr]),
                       length = load_le32(&b[message::length]);
        const size_t count = b.size() - message_head_bytes;
        const uint8_t code = b[message::code];
        const bool echoes = load_le32(&b[message::word1]) == asked_word1;
        const auto result = static_cast<int32_t>(load_le32(&b[message::result]));
        const auto data = std::span(b).subspan(message::payload, count);
        const bool right_sender = to == number("from", client) && load_le32(&b[message::aptid]) == own_identity_here;
        const bool right_head = echoes ? b[message::module] == module_self : b[message::id] == 254;
        const size_t due = code == command::update ? 0 : echoes ? count : b.size();
        if (!right_sender || !right_head || length != due || (addr - from) % frame_data_max != 0) {
            return "wrong head";
        }
        const bool is_response = code == command::update && std::ranges::equal(data, data_at(from, 4)); // with its type
        const char* const word = is_response ? "response " : echoes ? "reply " : "report ";
        if (is_response || count == 0) { return word + std::to_string(result); }
        const bool fits = result == 0 && code == command::read && (echoes || load_le16(&b[message::len]) == count);
        return fits ? (echoes ? word : "") + bytes_said(data, count, addr) : "wrong data";
    }

    // Every frame is a good one; those that follow the first one have the number of their piece, resent ones too.
    void judge_frames()
    {
        std::optional<uint16_t> first;
        const uint32_t size = is("command") ? number("len", 4) : n;
        for (const bytes_t& frame : w.frames) {
            request_fields f;
            if (check_request(frame, f) != violation::none) { return how.push_back("a bad frame"); }
            const uint32_t at = f.addr - number("addr", usual_addr),
                           piece = f.code == code_write ? 0 : at / frame_data_max;
            if (!first || is("write_again")) { first = f.seq; }
            const bool right = f.model == number("model", 0) && f.slot == number("slot", 1) &&
                               at % frame_data_max == 0 && at < size &&
                               f.len == std::min<size_t>(size - at, frame_data_max) &&
                               f.seq == static_cast<uint16_t>(*first + piece) &&
                               (f.code == code_read || std::ranges::equal(f.data, data_at(f.addr, f.len)));
            if (!right) { how.emplace_back("a wrong frame"); }
        }
    }

    words play_whole()
    {
        const auto at_start = figures_now();
        w.on_frame = [this](auto frame) { return send(frame); };
        w.on_wait = [this] { wait(); };
        w.on_pause = [this](uint64_t pause) { paused_us += pause; };
        w.before_send = [this] { play_all(before); };
        w.after_send = [this] { play_all(held); };
        is("command") ? command() : request();
        w.blocks_left = -1;
        play_all(then);
        const bool over = blocks_in_use() == 0;
        if (!over) { how.emplace_back("pending"); }
        if (!before.empty() || !held.empty()) { how.emplace_back("not all was played"); }
        const size_t frames = w.frames.size(), told = w.messages.size();
        words counters;
        for (const auto& [name, moved] : figures_now()) {
            const uint64_t by = moved - at_start.at(name);
            if (by != 0) { counters.push_back(name + ' ' + std::to_string(by)); }
        }
        if (number("full", 0) != 0) { empty_queue(); }
        for (int i = 0; i < 12; ++i) { w.tick(); }
        if (over && (w.frames.size() != frames || w.messages.size() != told)) { how.emplace_back("more followed"); }
        if (blocks_in_use() != 0) { how.emplace_back("blocks are left"); }
        judge_frames();
        for (size_t i = 0; i < told; ++i) { how.push_back(heard(w.messages[i].bytes, w.messages[i].to)); }
        std::string end;
        for (const std::string& one : how) { end += (end.empty() ? "" : ", ") + one; }
        if (end.empty() && (is("command") || is("read"))) { end = "nothing"; }
        if (end.empty() || (!is("command") && end == std::to_string(n) + " bytes")) { end = "done"; }
        if (waited_us != 0) { end += " after " + std::to_string(waited_us / tick_time_us) + " ticks"; }
        std::ranges::sort(counters);
        counters.insert(counters.begin(), {std::to_string(frames) + (frames == 1 ? " frame" : " frames"), end});
        return counters;
    }
};

} // namespace

words tell(const story& s) { return player(s).play_whole(); }

} // namespace rvk
