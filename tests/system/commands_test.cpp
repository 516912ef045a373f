// Commands as another process sends them, with cards at the far end: what is answered, and what reaches the cards.
#include "system/daemon.h"

#include "base/bytes.h"
#include "cardsim/link.h"
#include "eth_raw/frame.h"

#include <gtest/gtest.h>

#include <csignal>
#include <numeric>

using namespace rvk;

namespace {

struct Commands : testing::Test {
    Commands()
    {
        EXPECT_EQ(cards.start(), "");
        EXPECT_TRUE(requester.is_greeted());
    }
    ~Commands() override
    {
        EXPECT_EQ(d.end_by(SIGTERM), 0);
        EXPECT_EQ(farm.counts().refusals(), "none");
    }
    card_farm farm;
    card_link cards{farm};
    daemon_process d;
    conversation requester;
};

std::vector<uint8_t> pattern(size_t n, uint8_t from)
{
    std::vector<uint8_t> out(n);
    std::iota(out.begin(), out.end(), from);
    return out;
}

// The reply to a request: its head, but for what the daemon fills in, and the data.
std::vector<uint8_t> reply_to(std::vector<uint8_t> request, int32_t result, const std::vector<uint8_t>& data)
{
    std::vector<uint8_t> out(message_head_bytes + data.size());
    std::copy_n(request.begin(), data.empty() ? message_head_bytes : message::payload, out.begin());
    store_le32(out.data() + message::aptid, daemon_identity);
    store_le32(out.data() + message::length, static_cast<uint32_t>(data.size()));
    store_le32(out.data() + message::result, static_cast<uint32_t>(result));
    out[message::module] = module_self;
    std::copy(data.begin(), data.end(), out.begin() + message::payload);
    return out;
}

} // namespace

TEST_F(Commands, AReadIsAnsweredWithTheCardsBytes)
{
    const struct {
        int len;
        uint8_t slot, id;
        uint16_t model;
        int16_t type;
        int32_t result;
    } rows[] = {
        {1, 1, 254, 0, 0, 0},    {16, 1, 254, 0, 0, 0},    {16, 9, 7, 0x1234, 1, 0},  {1399, 2, 240, 3, 0, 0},
        {1400, 1, 253, 0, 1, 0}, {1401, 1, 254, 0, 0, -1}, {65535, 1, 254, 0, 0, -1}, {0, 1, 254, 0, 0, -1},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.len);
        const std::vector<uint8_t> data =
            row.result == 0 ? pattern(static_cast<size_t>(row.len), row.slot) : std::vector<uint8_t>{};
        farm.write({row.model, row.slot}, 0x2000, data);
        const std::vector<uint8_t> request = requester.pack({.slot = row.slot,
                                                             .model = row.model,
                                                             .addr = 0x2000,
                                                             .len = row.len,
                                                             .id = row.id,
                                                             .type = row.type,
                                                             .seq = 0xABCD});
        requester.tell(request);
        EXPECT_EQ(requester.receive(patience), reply_to(request, row.result, data));
    }
}

TEST_F(Commands, WhoIsAnsweredAfterAWrite)
{
    conversation companion(identity_of_companion), other_boards(identity_of(2, module_companion));
    const struct {
        const char* name;
        conversation* from;
        uint8_t slot;
        uint16_t model;
        uint32_t addr;
        bool answered;
    } rows[] = {
        {"the companion waits for everything", &companion, 1, 0, 0x0100, true},
        {"another board's does not", &other_boards, 1, 0, 0x0200, false},
        {"below the line", &requester, 1, 0, 0x0FFFFF00, false},
        {"above the line", &requester, 1, 0, 0x10000000, true},
        {"high above it", &requester, 1, 0, 0xF0000000, true},
        {"another slot", &requester, 2, 0, 0x0300, true},
        {"another model", &requester, 1, 0x100, 0x0400, true},
    };
    uint8_t seed = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const std::vector<uint8_t> data = pattern(100, ++seed);
        const std::vector<uint8_t> request = row.from->pack({.code = command::write_ack,
                                                             .slot = row.slot,
                                                             .model = row.model,
                                                             .addr = row.addr,
                                                             .payload = data,
                                                             .seq = seed});
        row.from->tell(request);
        if (row.answered) { EXPECT_EQ(row.from->receive(patience), reply_to(request, 0, {})); }
        EXPECT_TRUE(row.from->is_greeted()) << "and this is the next answer";
        EXPECT_TRUE(comes_true([&] { return farm.read({row.model, row.slot}, row.addr, 100) == data; }));
    }
}

TEST_F(Commands, APlainWriteArrivesAndIsNotAnswered)
{
    const std::vector<uint8_t> data = pattern(5000, 3); // several frames
    requester.tell({.code = command::write, .slot = 4, .model = 5, .addr = 0x600, .payload = data});
    EXPECT_TRUE(requester.is_greeted());
    EXPECT_TRUE(comes_true([&] { return farm.read({5, 4}, 0x600, data.size()) == data; }));
}

TEST_F(Commands, WhatACardRefuses)
{
    farm.set_faults({.wrong_ack = 1, .wrong_status = 3});
    const command_fields write{.code = command::write_ack, .slot = 2, .addr = 0x700, .payload = {1}};
    EXPECT_EQ(result_of(requester.ask(write)), 0) << "an answer is a success whatever its status";
    farm.set_faults({.wrong_read = 1.0});
    EXPECT_EQ(result_of(requester.ask({.addr = 0x700, .len = 4})), -1);
}

TEST_F(Commands, WhatNoCardAnswers)
{
    farm.set_faults({.loss = 1.0});
    EXPECT_EQ(result_of(requester.ask({.addr = 0x700, .len = 4})), -1);
    EXPECT_EQ(result_of(requester.ask({.code = command::write_ack, .slot = 2, .addr = 0x700, .payload = {1}})), -1);
    // The write that nobody waits for is reported when it is given up.
    const auto report = requester.ask({.code = command::write_ack, .addr = 0x740, .payload = {1, 2}});
    std::vector<uint8_t> expected(message_head_bytes);
    store_le32(expected.data() + message::aptid, daemon_identity);
    store_le32(expected.data() + message::length, 40);
    store_le32(expected.data() + message::result, 0xFFFFFFFF);
    store_le16(expected.data() + message::msg_class, 28);
    store_le32(expected.data() + message::data_len, 14);
    expected[message::id] = 254;
    expected[message::code] = command::write_ack;
    store_le32(expected.data() + message::addr, 0x740);
    EXPECT_EQ(report, expected);
}

TEST_F(Commands, TheGreetingByteForByte)
{
    // In hex, as it goes over the wire of the messaging service; the rest is zero.
    const uint8_t head[] = {0x00, 0x3B, 0x0A, 0x01, 0, 0, 0, 0,    72, 0, 0, 0, 0, 0, 0, 0, 0, 0,  28,
                            0,    46,   0,    0,    0, 0, 0, 0xF0, 0,  0, 0, 0, 0, 0, 0, 0, 0, 32, 0};
    std::vector<uint8_t> expected(112);
    std::copy(std::begin(head), std::end(head), expected.begin());
    const std::string text = "Hello, I am rvk module!";
    std::copy(text.begin(), text.end(), expected.begin() + 38);
    EXPECT_EQ(requester.ask({.code = command::greeting, .payload = {'h', 'i'}}), expected);
}
