// Which command is refused, and who is told what; no card and no requester sees anything else of it. What becomes of a
// good command is seen from outside, with the whole daemon.
#include "ap_msg/dispatch.h"
#include "ap_msg/endpoint.h"
#include "ap_msg/mailbox.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "eth_raw/frame.h"
#include "platform/platform.h"
#include "sim/outside.h"
#include "support/log_capture.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

using namespace rvk;

// The endpoint's other two calls; nothing here makes them.
int apipc_init(uint32_t, int) { return -1; }
int apipc_loop_wait(int, apipc_callback) { return -1; }

namespace {

constexpr uint32_t client = 0x010A7F05, companion = 0x010A3C00;

struct refusal {
    const char* name;
    uint8_t code;
    uint16_t len;   // what the message says
    size_t payload; // what it holds
    uint32_t from;
    uint8_t slot;
    const char* told;
    const char* logged;
};
const refusal refusals[] = {
    {"a read of too much", command::read, 1401, 0, client, 1, "reply -1", "len 1401, at most 1400"},
    {"a plain write that is cut", command::write, 5, 4, client, 1, "", "len 5, but its message holds 4"},
    {"a waited write that is cut", command::write_ack, 5, 4, client, 2, "reply -1", "holds 4"},
    {"the companion's, to a card of its own", command::write_ack, 5, 4, companion, 1, "reply -1", "holds 4"},
    {"one that is only reported", command::write_ack, 65535, 65534, client, 1, "report -1", "holds 65534"},
    {"a picture that is cut", command::file_write, 700, 699, client, 1, "reply -1", "holds 699"},
    {"with a name too long", command::file_write, 1011, 1011, client, 1, "reply -1", "len 1011, at most 1010"},
    {"a read-back that is cut", command::file_read, 700, 699, client, 1, "", "holds 699"},
    {"with a name too long", command::file_read, 65535, 65535, client, 1, "", "at most 1010"},
    {"an update that is cut", command::update, 700, 699, client, 1, "response -1 type 04030201", "holds 699"},
    {"within its type", command::update, 4, 2, client, 1, "response -1 type 00000201", "holds 2"},
    {"with a name too long", command::update, 1011, 1011, client, 1, "response -1 type 04030201", "at most 1010"},
};

std::vector<uint8_t> message_of(const refusal& r)
{
    std::vector<uint8_t> m(std::max(message::payload + r.payload, message_head_bytes));
    for (size_t i = 0; i < r.payload; ++i) { m[message::payload + i] = static_cast<uint8_t>(i + 1); }
    store_le32(&m[message::aptid], r.from);
    store_le32(&m[message::word1], 0xC0FFEE);
    store_le16(&m[message::msg_class], 28);
    m[message::code] = r.code;
    m[message::slot] = r.slot;
    store_le32(&m[message::addr], 0x0123);
    store_le16(&m[message::len], r.len);
    return m;
}

int deal(const std::vector<uint8_t>& message)
{
    return ApipcEventDeal(0, 0, message.data(), static_cast<int>(message.size()));
}

// What was sent, by its size and its head: a reply and a response echo the request, a report does not.
std::string told(uint32_t whom)
{
    std::string text;
    for (const auto& [to, m] : world.messages) {
        EXPECT_EQ(to, whom);
        EXPECT_EQ(load_le32(&m[message::aptid]), 0x010A3B00u);
        EXPECT_EQ(load_le32(&m[message::addr]), 0x0123u);
        const bool echoes = load_le32(&m[message::word1]) == 0xC0FFEE;
        EXPECT_EQ(m[message::module], echoes ? module_self : 0);
        EXPECT_EQ(load_le32(&m[message::length]), echoes ? 0u : 40u);
        const bool response = m.size() == 44;
        char type[20] = "";
        if (response) { snprintf(type, sizeof type, " type %08x", load_le32(&m[message::payload])); }
        EXPECT_TRUE(response || m.size() == 40) << m.size();
        text += response ? "response " : echoes ? "reply " : "report ";
        text += std::to_string(static_cast<int32_t>(load_le32(&m[message::result]))) + type;
    }
    return text;
}

class Dispatch : public testing::Test {
protected:
    Dispatch() { start(); }
    ~Dispatch() override { gbUpdateProcessRunning = 0; }
    void start()
    {
        reset_outside();
        take_log();
    }
    void expect_silence()
    {
        EXPECT_TRUE(world.messages.empty());
        EXPECT_TRUE(world.frames.empty());
    }
};

TEST_F(Dispatch, RefusesAndTellsWhomItShould)
{
    const std::string before = pool_in_use();
    for (const refusal& r : refusals) {
        SCOPED_TRACE("0x" + std::to_string(r.code) + " " + r.name);
        start();
        EXPECT_EQ(deal(message_of(r)), 0);
        EXPECT_EQ(told(r.from), r.told);
        EXPECT_EQ(logged(r.logged), 1u);
        EXPECT_TRUE(world.frames.empty());
        EXPECT_EQ(pool_in_use(), before);
    }
}

TEST_F(Dispatch, DropsEverythingWhileAnUpdateRuns)
{
    gbUpdateProcessRunning = 1;
    for (const int code : {0x00, 0x01, 0x02, 0xDD, 0xEE, 0xEF, 0xF0, 0x55}) {
        for (const uint16_t len : {uint16_t{4}, uint16_t{2000}}) { // what would be refused otherwise, too
            EXPECT_EQ(deal(message_of({"", static_cast<uint8_t>(code), len, 4, client, 2, "", ""})), 0);
        }
    }
    EXPECT_EQ(logged("file proc running, ignored\n"), 16u);
    expect_silence();
}

TEST_F(Dispatch, SortsOutWhatIsNoCommand)
{
    const struct {
        const char* name;
        size_t bytes;
        int16_t kind, type;
    } rows[] = {
        {"nothing", 0, 28, 0},   {"a byte short of a head", 39, 28, 0}, {"another type", 40, 28, 2},
        {"another", 40, 28, -1}, {"another class", 80, 27, 0},          {"another", 40, 28 + 256, 1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        start();
        auto m = message_of({"", command::greeting, 0, 65537, client, 1, "", ""});
        store_le16(&m[message::msg_class], static_cast<uint16_t>(row.kind));
        store_le16(&m[message::msg_type], static_cast<uint16_t>(row.type));
        m.resize(row.bytes);
        m.push_back(0); // so that there is a first byte to point at
        EXPECT_EQ(ApipcEventDeal(0, 0, m.data(), static_cast<int>(row.bytes)), 0);
        EXPECT_EQ(logged("msg type wrong\n"), 1u);
        expect_silence();
    }
    EXPECT_EQ(ApipcEventDeal(0, 0, nullptr, 40), -1);
}

// Text is what the message holds of it, at most `len` bytes, whatever stands behind.
TEST_F(Dispatch, ReadsNoTextPastItsEnd)
{
    for (const auto& [len, held, text] : {std::tuple{3, 10, "abc"}, {10, 3, "abc"}, {0, 10, ""}, {65535, 2, "ab"}}) {
        SCOPED_TRACE(text);
        start();
        auto m = message_of({"", 0x55, static_cast<uint16_t>(len), static_cast<size_t>(held), client, 1, "", ""});
        std::fill(m.begin() + message::payload, m.end(), 0);
        for (int i = 0; i < held; ++i) { m[message::payload + static_cast<size_t>(i)] = static_cast<uint8_t>('a' + i); }
        EXPECT_EQ(deal(m), 0);
        EXPECT_EQ(logged(std::string("recv msg: ' ") + text + " ' \n"), 1u);
        expect_silence();
    }
}

TEST_F(Dispatch, HandsAFileJobOverAsItCame)
{
    const auto m = message_of({"", command::file_write, 1010, 1010, client, 1, "", ""});
    EXPECT_EQ(deal(m), 0);
    expect_silence();
    mailbox_wait();
    const scoped_lock hold(file_mutex);
    EXPECT_TRUE(std::equal(file_name_data.begin(), file_name_data.end(), m.begin() + message::data_head));
    EXPECT_TRUE(std::equal(m.begin(), m.begin() + message_head_bytes, file_write_head.begin()));
    // the slot stays taken: this is the last test here that uses it
}

TEST_F(Dispatch, AReadWithoutABufferHasNoAnswer)
{
    world.allocations_left = 0;
    EXPECT_EQ(deal(message_of({"", command::read, 4, 0, client, 1, "", ""})), -1);
    EXPECT_EQ(logged("RawMsgBuffGet fail\n"), 1u);
    EXPECT_EQ(deal(message_of({"", command::greeting, 0, 0, client, 1, "", ""})), 0);
    expect_silence();
}

// What the requester sees is seen from outside; how long a card may take is not.
TEST_F(Dispatch, WaitsThreeTicksForTheNearCardAndSixForOthers)
{
    const struct {
        uint8_t code, slot;
        int ticks;
    } rows[] = {{command::read, 1, 9}, {command::read, 2, 18}, {command::write_ack, 2, 18}};
    for (const auto& row : rows) {
        start();
        int waited = 0;
        world.on_wait = [&] { ticks(1), ++waited; };
        EXPECT_EQ(deal(message_of({"", row.code, 4, 4, client, row.slot, "", ""})), 0);
        EXPECT_EQ(waited, row.ticks);
        EXPECT_EQ(told(client), "reply -1");
    }
}

} // namespace
