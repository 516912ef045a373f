// Plays a story in a world of its own, and says what its sender, its requester and its card saw.
#include "sim/story.h"

#include "ap_msg/endpoint.h"
#include "ap_msg/file_service.h"
#include "ap_msg/mailbox.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/counters.h"
#include "eth_raw/frame.h"
#include "private_files.h"
#include "queue/queue.h"
#include "raw_msg/filing.h"
#include "raw_msg/link_lock.h"
#include "raw_msg/send_ack.h"
#include "raw_msg/send_plain.h"
#include "raw_msg/send_read.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace rvk {
namespace {

constexpr uint32_t usual_ticks = 3;
constexpr char answers[] =
    " good short refused none empty most too_much other_number other_address other_kind unknown_code "
    "damaged lying tail stranger runt ";
constexpr char options[] = " on for room slot model addr len holds type class bytes from ";
constexpr char settings[] = " blocks full room_after refuse_register refuse_piece silent_piece stale ";

bool is_one_of(const char* words, const std::string& word)
{
    return std::string(words).find(' ' + word + ' ') != std::string::npos;
}

struct player : story {
    world w{};
    bytes_t last{};                  // frame that a send was tried with
    std::deque<std::string> sends{}; // what the next ones come to
    uint64_t waited_us = 0;          // by a sender, for its answer
    uint64_t paused_us = 0;          // by a sender
    bytes_t carried{};               // by the command
    words how{};

    explicit player(const story& told) : story(told) {}

    int queue() const
    {
        return is("write") ? ACK_QUEUE : is("write_wait") ? ACK_WAIT_QUEUE : is("read") ? READ_QUEUE : READ_WAIT_QUEUE;
    }
    void play_all(const std::deque<std::string>& events)
    {
        for (const std::string& event : events) { play(event); }
    }

    void check_words()
    {
        for (size_t i = is("update") ? 3 : 2; i < asked.size(); i += asked[i] == "updating" ? 1u : 2u) {
            if (asked[i] != "updating" && !is_one_of(options, asked[i])) { how.push_back("no option " + asked[i]); }
        }
        for (const auto& [name, n] : set) {
            if (!is_one_of(settings, name)) { how.push_back("no setting " + name); }
        }
    }

    long send(std::span<const uint8_t> frame)
    {
        static const std::map<std::string, long> errors{
            {"EAGAIN", -EAGAIN}, {"ENOBUFS", -ENOBUFS}, {"ENETDOWN", -ENETDOWN}};
        last.assign(frame.begin(), frame.end());
        const std::string fate = sends.empty() ? "ok" : sends.front();
        if (!sends.empty()) { sends.pop_front(); }
        const auto n = static_cast<long>(frame.size());
        return fate == "ok" ? n : fate == "cut" ? n - 1 : errors.at(fate);
    }

    void answer(const std::string& kind)
    {
        request_fields request;
        if (check_request(last, request) != verdict::good) { return how.push_back("no good frame to answer"); }
        const bool reads = request.code == code_read;
        const size_t most = frame_data_max + (kind == "too_much" ? 1 : 0),
                     usual = kind == "empty" || !reads ? 0 : request.len;
        const bytes_t data = data_at(request.addr, kind == "most" || kind == "too_much" ? most : usual);
        uint8_t code = request.code;
        if (kind == "short") { code = code_ack_short; }
        if (kind == "unknown_code") { code = 0x33; }
        if (kind == "other_kind") { code = reads ? code_write_ack : code_read; }
        if (kind == "other_number") { ++request.seq; }
        if (kind == "other_address") { ++request.addr; }
        reply_frame reply;
        pack_reply(reply, request, kind == "refused" ? 2 : kind == "none" ? no_answer : ack_good, code, data);
        if (kind == "damaged") { reply.bytes[reply::model] ^= 0x10; }
        if (kind == "lying") { ++reply.bytes[reply::len], close_reply(reply); }
        if (kind == "stranger") { reply.bytes[reply::source] ^= 1; }
        if (kind == "runt") { reply.length = reply::payload - 1; }
        if (kind == "tail") { reply.bytes[reply.length++] = 0x77; }
        w.arrive(reply.view());
    }

    void play(const std::string& event)
    {
        static const std::map<std::string, std::pair<int, int>> periods{
            {"tick", {1, 1}}, {"expiry", {3, 1}}, {"burst", {1, 10}}, {"pass", {1, 0}}};
        if (is_one_of(answers, event)) { return answer(event); }
        if (is_one_of(" ok EAGAIN ENOBUFS ENETDOWN cut ", event)) { return sends.push_back(event); }
        if (event == "emptied") { return empty_queue(); }
        if (!periods.contains(event)) { return how.push_back("no event " + event); }
        for (int i = 0; i < periods.at(event).first; ++i) { w.tick(periods.at(event).second); }
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
        const auto at = usual_addr, ticks = number("for", usual_ticks), n = static_cast<uint32_t>(size());
        const bytes_t data = data_at(at, n);
        bytes_t room(number("room", frame_data_max) + 1, untouched);
        uint8_t* const area = is("read") ? ApMsgBuffGet(frame_data_max) : nullptr;
        if (set.contains("blocks")) { w.blocks_left = static_cast<int>(setting("blocks")); }
        if (setting("full") != 0) { fill(); }
        const auto dest = std::span(room).first(room.size() - 1);
        uint8_t ack = 0;
        uint32_t got = 0;
        int32_t result = -2;
        if (is("plain")) { result = RawSockSendMsg(link, 0, 1, at, code_write, data); }
        if (is("write")) { result = RawSockSendMsgWithAck(client, link, 0, 1, at, code_write_ack, data); }
        if (is("write_wait")) { result = RawSockSendMsgWithAckWait(link, 0, 1, at, code_write_ack, data, &ack, ticks); }
        if (is("read")) {
            result = RawSockSendMsgWithRead(client, link, 0, 1, at, code_read, n, {area, frame_data_max});
        }
        if (is("read_wait")) { result = RawSockSendMsgWithReadWait(link, 0, 1, at, code_read, n, dest, &got, ticks); }
        if (result == -2) { how.push_back("no kind of request " + asked[0]); }
        if (result != 0) { ApMsgBuffFree(area), how.emplace_back("failed"); }
        if (is("write_wait") && ack != (result == 0 ? ack_good : no_answer)) {
            how.push_back("status " + std::to_string(ack));
        }
        if (is("read_wait") && result != 0 && got != 0) { how.push_back(std::to_string(got) + " bytes said"); }
        if (is("read_wait") && result == 0) { how.push_back(bytes_said(room, got, at)); }
    }

    // Its queue has as many requests as it takes; room for one comes with a pause of its sender, if at all.
    void fill()
    {
        while (queue_add(0, queue(), make_node(0, 0xF000, 0, nullptr, 94)) == 0 &&
               queue_length(0, queue()) < queue_nodes_max) {}
        w.on_pause = [this, pauses = 0u](uint64_t pause) mutable {
            QNode* oldest = Qlist[0][queue()];
            paused_us += pause;
            if (++pauses == setting("room_after")) { static_cast<void>(queue_del(0, queue(), &oldest)); }
        };
    }

    // As a sender does that still finds it full.
    void empty_queue()
    {
        const scoped_lock hold(find_check_mtx[0]);
        queue_empty(0, queue());
    }

    // What it carries is the data of its address, where it is not given.
    void command(uint8_t code, const bytes_t& payload)
    {
        const auto len = number("len", payload.empty() ? 4 : payload.size()), addr = number("addr", usual_addr);
        carried = payload.empty() ? data_at(addr, number("holds", len)) : payload;
        bytes_t m(std::max(message_head_bytes, message::payload + carried.size()));
        store_le32(&m[message::aptid], has("companion") ? companion : client);
        store_le32(&m[message::word1], asked_word1);
        store_le16(&m[message::msg_type], static_cast<uint16_t>(number("type", 0)));
        store_le16(&m[message::msg_class], static_cast<uint16_t>(number("class", 28)));
        m[message::code] = code;
        m[message::slot] = static_cast<uint8_t>(number("slot", 1));
        store_le16(&m[message::model], static_cast<uint16_t>(number("model", 0)));
        store_le32(&m[message::addr], addr);
        store_le16(&m[message::len], static_cast<uint16_t>(len));
        std::ranges::copy(carried, m.begin() + message::payload);
        if (set.contains("blocks")) { w.blocks_left = static_cast<int>(setting("blocks")); }
        gbUpdateProcessRunning = has("updating") ? 1 : 0;
        ApipcEventDeal(0, 0, m.data(), static_cast<int>(number("bytes", m.size())));
        gbUpdateProcessRunning = 0;
    }

    // A firmware job from its message to its end; its card and its files are simulated.
    void update()
    {
        static const std::string path = "/fw.bin";
        const bytes_t image = data_at(0, std::stoul(asked.at(2)));
        const auto often = [this](const char* what) { return times.contains(what) ? times.at(what) : 1; };
        open_private_files();
        place(path, placed::file, image);
        if (setting("stale") == 0) {
            w.on_shell = [](const char* line) { return run_on_private_files(line) ? 0 : -1; };
        }
        if (setting("stale") != 0) { place(temporary_image, placed::file, data_at(0, setting("stale"))); }
        w.on_frame = nullptr;
        w.on_wait = nullptr;
        w.farm.set_behaviour({.refuse_register = setting("refuse_register"),
                              .refuse_register_times = often("refuse_register"),
                              .refuse_piece = setting("refuse_piece"),
                              .refuse_piece_times = often("refuse_piece"),
                              .silent_piece = setting("silent_piece")});
        bytes_t payload(4 + path.size() + 1);
        store_le32(payload.data(), static_cast<uint32_t>(std::stoul(asked[1], nullptr, 0)));
        std::ranges::copy(path, payload.begin() + 4);
        command(command::update, payload);
        file_step();
        clear_private_files();
    }

    ending play_whole()
    {
        const auto at_start = figures_now(w);
        w.on_frame = [this](auto frame) { return send(frame); };
        w.on_wait = [this] { wait(); };
        w.on_pause = [this](uint64_t pause) { paused_us += pause; };
        w.before_send = [this, events = before]() mutable { play_all(std::exchange(events, {})); };
        w.after_send = [this, events = held]() mutable { play_all(std::exchange(events, {})); };
        check_words();
        if (is("update")) { update(); }
        if (is("command")) { command(static_cast<uint8_t>(std::stoul(asked.at(1), nullptr, 0)), {}); }
        if (is_request()) { request(); }
        w.blocks_left = -1;
        play_all(std::exchange(then, {}));
        const bool over = blocks_in_use() == 0;
        if (!over) { how.emplace_back("pending"); }
        const size_t told = w.messages.size();
        ending e{.frames = w.frames.size(), .how = {}, .counters = {}};
        for (const auto& [name, n] : figures_now(w)) {
            if (n != at_start.at(name)) { e.counters.insert(name + " " + std::to_string(n - at_start.at(name))); }
        }
        if (paused_us != 0) { e.counters.insert("paused_ms " + std::to_string(paused_us / 1000)); }
        if (setting("full") != 0) { empty_queue(); }
        for (int i = 0; i < 12; ++i) { w.tick(); }
        if (over && (w.frames.size() != e.frames || w.messages.size() != told)) { how.emplace_back("more followed"); }
        if (blocks_in_use() != 0) { how.emplace_back("blocks are left"); }
        std::ranges::move(judged(*this, w.frames), std::back_inserter(how));
        for (size_t i = 0; i < told; ++i) { how.push_back(heard(*this, w.messages[i], carried)); }
        e.how = joined(how);
        if (e.how.empty() || (is_request() && e.how == asked[1] + " bytes")) {
            e.how = is_request() && (!is("read") || !how.empty()) ? "done" : "nothing";
        }
        if (waited_us != 0) { e.how += " after " + std::to_string(waited_us / tick_time_us) + " ticks"; }
        return e;
    }
};

} // namespace

ending tell(const story& s) { return player(s).play_whole(); }

} // namespace rvk
