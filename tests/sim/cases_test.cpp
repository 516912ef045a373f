// What becomes of one request, as its sender, its card and its requester see it: one row per story, events as letters.
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "cardsim/checks.h"
#include "eth_raw/frame.h"
#include "raw_msg/send_ack.h"
#include "raw_msg/send_read.h"
#include "sim/outside.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <numeric>

using namespace rvk;

namespace {

constexpr uint32_t addr = 0x1000, requester = 0x010A5500;
constexpr uint32_t timeout_ticks = 3;

enum kind { write, write_wait, read, read_wait };

std::span<const uint8_t> pattern(size_t n)
{
    static const auto bytes = [] {
        std::array<uint8_t, 1401> all;
        std::iota(all.begin(), all.end(), uint8_t{1});
        return all;
    }();
    return std::span(bytes).first(n);
}

bool is_write(kind k) { return k == write || k == write_wait; }

// g good   h good, with the other acknowledgement's code   e good without data   m good, 1,400 bytes   L good, 1,401
// w refused (2), data all the same   n "no answer" (255), data all the same   x three ticks   t one tick
// s another sequence number   a another address   k another kind   u an unknown code   c a wrong checksum
// F the send fails
void play(kind k, char event)
{
    const uint8_t code = is_write(k) ? code_write_ack : code_read;
    const auto data = is_write(k) ? pattern(0) : pattern(5);
    switch (event) {
    case 'g': return receive(pack({code, 0, addr, 0, data}));
    case 'h': return receive(pack({code_ack_short, 0, addr, 0, data}));
    case 'e': return receive(pack({code, 0, addr, 0, {}}));
    case 'm': return receive(pack({code, 0, addr, 0, pattern(1400)}));
    case 'L': return receive(pack({code, 0, addr, 0, pattern(1401)}));
    case 'w': return receive(pack({code, 2, addr, 0, data}));
    case 'n': return receive(pack({code, no_answer, addr, 0, data}));
    case 's': return receive(pack({code, 0, addr, 1, data}));
    case 'a': return receive(pack({code, 0, addr + 1, 0, data}));
    case 'k': return receive(pack({is_write(k) ? code_read : code_write_ack, 0, addr, 0, pattern(5)}));
    case 'u': return receive(pack({0x33, 0, addr, 0, pattern(5)}));
    case 'c': {
        auto frame = pack({code, 0, addr, 0, data});
        frame[reply::payload - 1] ^= 1;
        return receive(frame);
    }
    case 'x': return ticks(3);
    case 't': return ticks(1);
    case 'F': world.on_frame = [](std::span<const uint8_t>) { return errno = ENOBUFS, -1; }; return;
    default: ADD_FAILURE() << "no event " << event;
    }
}

void play(kind k, const char* events)
{
    while (*events != '\0') { play(k, *events++); }
}

std::string bytes_said(std::span<const uint8_t> data)
{
    const auto right = pattern(data.size());
    return std::to_string(data.size()) +
           (std::equal(data.begin(), data.end(), right.begin()) ? " bytes" : " wrong bytes");
}

// What the requester was told: "report -1", "report 0: 5 bytes".
std::string reports()
{
    std::string text;
    for (const auto& [to, bytes] : world.messages) {
        EXPECT_EQ(to, requester);
        EXPECT_EQ(load_le32(&bytes[message::addr]), addr);
        EXPECT_EQ(load_le32(&bytes[message::length]), bytes.size()); // of reports, the head included
        EXPECT_EQ(load_le16(&bytes[message::len]), bytes.size() - message_head_bytes);
        const auto result = static_cast<int32_t>(load_le32(&bytes[message::result]));
        text += "report " + std::to_string(result);
        if (bytes.size() > message_head_bytes) {
            const size_t len = load_le16(&bytes[message::len]);
            text += ": " + bytes_said(std::span(bytes).subspan(message::payload, len));
        }
    }
    return text;
}

struct story {
    const char* name;
    kind k;
    const char *before, *during; // while the sender is held: before its frame is packed; after its frame is out
    const char* then;            // asynchronous: when the call is back; synchronous: while it waits, then 'x' for ever
    size_t frames;
    const char* end; // what the sender or the requester sees
};

std::string tell_async(const story& s)
{
    int32_t result = 0;
    if (s.k == write) {
        result = RawSockSendMsgWithAck(requester, 0, 0, 1, addr, code_write_ack, pattern(8));
    } else {
        uint8_t* dest = ApMsgBuffGet(frame_data_max);
        result = RawSockSendMsgWithRead(requester, 0, 0, 1, addr, code_read, 5, {dest, frame_data_max});
        if (result != 0) { ApMsgBuffFree(dest); }
    }
    play(s.k, s.then);
    return (result != 0 ? "failed" : "") + reports() + (filed() != 0 ? "pending" : "");
}

std::string tell_sync(const story& s)
{
    size_t waited = 0;
    world.on_wait = [&] { play(s.k, waited < strlen(s.then) ? s.then[waited] : 'x'), ++waited; };
    std::string text;
    if (s.k == write_wait) {
        uint8_t ack = 0;
        text =
            std::to_string(RawSockSendMsgWithAckWait(0, 0, 1, addr, code_write_ack, pattern(8), &ack, timeout_ticks));
        text += ", ack " + std::to_string(ack);
    } else {
        std::array<uint8_t, 16> dest{};
        uint32_t len = 0;
        text = std::to_string(RawSockSendMsgWithReadWait(0, 0, 1, addr, code_read, 5, dest, &len, timeout_ticks));
        text += ", " + (len <= dest.size() ? bytes_said(std::span(dest).first(len)) : std::to_string(len) + " bytes");
    }
    return text + " after " + std::to_string(waited);
}

const story stories[] = {
    {"a good answer ends it silently", write, "", "", "g", 1, ""},
    {"so does the other acknowledgement", write, "", "", "h", 1, ""},
    {"a second one finds nothing", write, "", "", "gg", 1, ""},
    {"no answer: three sends, then one report", write, "", "", "xx", 3, "pending"},
    {"the third expiry reports", write, "", "", "xxx", 3, "report -1"},
    {"an answer behind the report is nobody's", write, "", "", "xxxgw", 3, "report -1"},
    {"a refusal is answered with a resend", write, "", "", "wwg", 3, ""},
    {"which costs no try", write, "", "", "wwxxx", 5, "report -1"},
    {"and starts the time again", write, "", "", "ttwtt", 2, "pending"},
    {"for three ticks", write, "", "", "ttwttt", 3, "pending"},
    {"an answer that says 'no answer' changes nothing", write, "", "", "nttnt", 2, "pending"},
    {"nor do other people's answers", write, "", "", "sakuc", 1, "pending"},
    {"answered before the frame is packed", write, "g", "", "", 1, ""},
    {"answered before the send is back", write, "", "g", "", 1, ""},
    {"answered twice there", write, "", "gg", "g", 1, ""},
    {"refused before the frame is packed: resent when it is out", write, "w", "", "g", 2, ""},
    {"refused there, then accepted", write, "", "wg", "", 1, ""},
    {"an expiry there does not count", write, "xxxx", "xxxx", "xxx", 3, "report -1"},
    {"the send fails", write, "F", "", "x", 0, "failed"},
    {"the send fails, and is answered", write, "F", "g", "x", 0, "failed"},
    {"the send fails, and is refused", write, "F", "w", "x", 0, "failed"},

    {"a good answer wakes", write_wait, "", "", "g", 1, "0, ack 0 after 1"},
    {"a refusal wakes with its code", write_wait, "", "", "w", 1, "0, ack 2 after 1"},
    {"no answer: sent once, three periods", write_wait, "", "", "", 1, "-1, ack 255 after 3"},
    {"'no answer' is none", write_wait, "", "", "nxnx", 1, "-1, ack 255 after 5"},
    {"other people's answers are none", write_wait, "", "", "sakucg", 1, "0, ack 0 after 6"},
    {"answered before the frame is packed", write_wait, "g", "", "", 1, "0, ack 0 after 0"},
    {"answered before the timer is armed", write_wait, "", "g", "", 1, "0, ack 0 after 0"},
    {"the first answer stands", write_wait, "", "wgx", "", 1, "0, ack 2 after 0"},
    {"time before the timer is armed does not count", write_wait, "xxxx", "xxxx", "", 1, "-1, ack 255 after 3"},
    {"the send fails", write_wait, "F", "", "", 0, "-1, ack 255 after 0"},
    {"the send fails, and is answered", write_wait, "F", "g", "", 0, "-1, ack 255 after 0"},

    {"data is reported", read, "", "", "g", 1, "report 0: 5 bytes"},
    {"as much as a frame carries", read, "", "", "m", 1, "report 0: 1400 bytes"},
    {"more is a failure", read, "", "", "L", 1, "report -1"},
    {"once", read, "", "", "gg", 1, "report 0: 5 bytes"},
    {"an answer without data is none", read, "", "", "exxe", 3, "pending"},
    {"no answer: three sends, then one report", read, "", "", "exxx", 3, "report -1"},
    {"'no answer' with data is none", read, "", "", "nxnxnx", 3, "report -1"},
    {"a refusal is answered with a resend", read, "", "", "wxxwg", 5, "report 0: 5 bytes"},
    {"other people's answers are none", read, "", "", "sakuc", 1, "pending"},
    {"answered before the frame is packed", read, "g", "", "", 1, "report 0: 5 bytes"},
    {"answered before the send is back", read, "", "gm", "g", 1, "report 0: 5 bytes"},
    {"with too much", read, "", "L", "g", 1, "report -1"},
    {"without data", read, "", "e", "g", 1, "report 0: 5 bytes"},
    {"refused there: resent when it is out", read, "w", "", "g", 2, "report 0: 5 bytes"},
    {"an expiry there does not count", read, "xxxx", "xxxx", "xxx", 3, "report -1"},
    {"the send fails, and the buffer stays the caller's", read, "F", "", "x", 0, "failed"},
    {"also when it is answered", read, "F", "g", "x", 0, "failed"},

    {"data wakes", read_wait, "", "", "g", 1, "0, 5 bytes after 1"},
    {"more than there is room for is cut", read_wait, "", "", "m", 1, "0, 16 bytes after 1"},
    {"more than a frame carries is a failure", read_wait, "", "", "L", 1, "-1, 1401 bytes after 1"},
    {"a good answer without data wakes at once", read_wait, "", "", "e", 1, "-1, 0 bytes after 1"},
    {"a refusal wakes without data", read_wait, "", "", "w", 1, "-1, 0 bytes after 1"},
    {"no answer: sent once, three periods", read_wait, "", "", "", 1, "-1, 0 bytes after 3"},
    {"'no answer' with data is none", read_wait, "", "", "nxnx", 1, "-1, 0 bytes after 5"},
    {"other people's answers are none", read_wait, "", "", "sakucg", 1, "0, 5 bytes after 6"},
    {"answered before the timer is armed", read_wait, "", "gxw", "", 1, "0, 5 bytes after 0"},
    {"the send fails", read_wait, "F", "", "", 0, "-1, 0 bytes after 0"},
    {"the send fails, and is answered", read_wait, "F", "g", "", 0, "-1, 0 bytes after 0"},
};

void expect_same_good_frames()
{
    for (const frame_bytes_t& frame : world.frames) {
        request_fields fields;
        EXPECT_EQ(name_of(check_request(frame, fields)), std::string("good"));
        EXPECT_EQ(frame, world.frames.front());
    }
}

TEST(Delivery, EndsEveryRequestOnce)
{
    for (const story& s : stories) {
        SCOPED_TRACE(std::to_string(s.k) + " " + s.name);
        reset_outside();
        const std::string before = pool_in_use();
        world.before_send = [&] { play(s.k, s.before); };
        world.after_send = [&] { play(s.k, s.during); };
        EXPECT_EQ(s.k == write || s.k == read ? tell_async(s) : tell_sync(s), s.end);
        EXPECT_EQ(world.frames.size(), s.frames);
        expect_same_good_frames();
        play(s.k, "xxxx");
        EXPECT_EQ(filed(), 0);
        EXPECT_EQ(pool_in_use(), before);
    }
}

// The numbers of each kind are counted separately: the same number may be pending once in each queue of a kind.
TEST(Delivery, OneAnswerEndsOneRequestOfEachKind)
{
    for (const bool writes : {true, false}) {
        SCOPED_TRACE(writes);
        reset_outside();
        EXPECT_EQ(tell_async({"", writes ? write : read, "", "", "", 1, ""}), "pending");
        EXPECT_EQ(tell_sync({"", writes ? write_wait : read_wait, "", "", "g", 1, ""}),
                  writes ? "0, ack 0 after 1" : "0, 5 bytes after 1");
        EXPECT_EQ(filed(), 0);
        EXPECT_EQ(reports(), writes ? "" : "report 0: 5 bytes");
    }
}

TEST(Delivery, AThousandRefusalsEndARequest)
{
    for (const kind k : {write, read}) {
        SCOPED_TRACE(k);
        reset_outside();
        EXPECT_EQ(tell_async({"", k, "", "", std::string(999, 'w').c_str(), 1, ""}), "pending");
        EXPECT_EQ(world.frames.size(), 1000u);
        play(k, "w");
        EXPECT_EQ(reports(), "report -1");
        EXPECT_EQ(filed(), 0);
        EXPECT_EQ(world.frames.size(), 1000u);
    }
}

} // namespace
