// The older block protocol at the cards' end: what is obeyed, what is refused by name, and how an answer goes wrong.
// Requests are made, and answers looked at, by the controller's own code.
#include "base/bytes.h"
#include "cardsim/cards.h"
#include "eth_raw/bus_packet.h"
#include "eth_raw/frame.h"

#include <gtest/gtest.h>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;
constexpr uint32_t at = 0x1000000;

bytes counted(size_t n)
{
    bytes data(n);
    for (size_t i = 0; i < n; ++i) { data[i] = static_cast<uint8_t>(i * 7 + i / 256 + 1); }
    return data;
}

bytes packet_of(uint8_t type, uint32_t addr, uint32_t length, const bytes& data)
{
    std::array<uint8_t, bus_packet_max> packet;
    const size_t total = make_bus_request(&packet, addr, length, data.data(), type);
    return {packet.begin(), packet.begin() + static_cast<ptrdiff_t>(total)};
}

bytes writing(const bytes& data) { return packet_of(bus_write, at, static_cast<uint32_t>(data.size()), data); }
bytes reading(uint32_t length) { return packet_of(bus_read, at, length, bytes(bus_data_min)); }

std::vector<reply_frame> ask(card_farm& farm, const bytes& packet)
{
    std::vector<reply_frame> out;
    farm.request(packet, 0, out);
    return out;
}

struct tampering {
    const char* name;
    mistake counted_as;
    void (*change)(bytes& packet);
    bool closed = true; // with a checksum that is right for what it then says
};

const tampering wrongs[] = {
    {"cut short", mistake::bus_packet_length, [](bytes& p) { p.pop_back(); }},
    {"longer than it says", mistake::bus_packet_length, [](bytes& p) { p.push_back(0); }},
    {"an answer's type", mistake::bus_packet_type, [](bytes& p) { p[bus::type] = bus_read_back; }},
    {"a reserved byte", mistake::bus_reserved_byte, [](bytes& p) { p[bus::rsv0] = 1; }},
    {"no data", mistake::bus_data_length, [](bytes& p) { store_le32(&p[bus::data_len], 0); }},
    {"more data than its area", mistake::bus_data_length, [](bytes& p) { store_le32(&p[bus::data_len], 101); }},
    {"a wrong sum", mistake::bus_checksum, [](bytes& p) { ++p.back(); }, false},
};

void close(bytes& p)
{
    const size_t end = p.size() - checksum_bytes;
    const size_t summed = std::min<size_t>(end, bus::data + load_le32(&p[bus::data_len])) - bus::length;
    store_le16(&p[end], static_cast<uint16_t>(frame_checksum(&p[bus::length], summed) - checksum_start));
}

struct fault_case {
    const char* name;
    card_faults faults;
    size_t frames;
    int accepted;        // what judge_packet says of the last one
    uint8_t type, first; // and what it holds, when it is accepted
    uint32_t length;
};

const fault_case faults[] = {
    {"none", {}, 1, 0, bus_read_back, 1, 100},
    {"bus_refused", {.bus_refused = 1, .wrong_status = 5}, 1, 0, bus_response, 5, 1},
    {"bus_no_data", {.bus_no_data = 1}, 1, 0, bus_response, 0, 1},
    {"bus_data_short", {.bus_data_short = 1}, 1, 0, bus_read_back, 1, 50},
    {"bus_data_lie", {.bus_data_lie = 1}, 1, 0, bus_read_back, 1, 100},
    {"bus_length_lie", {.bus_length_lie = 1}, 1, -1, 0, 0, 0},
    {"bus_wrong_type", {.bus_wrong_type = 1}, 1, -1, 0, 0, 0},
    {"bus_wrong_addr", {.bus_wrong_addr = 1}, 1, -1, 0, 0, 0},
    {"bus_wrong_dest", {.bus_wrong_dest = 1}, 1, -1, 0, 0, 0},
    {"corrupt", {.corrupt = 1}, 1, -1, 0, 0, 0},
    {"trailing", {.trailing = 1}, 1, 0, bus_read_back, 1, 100},
    {"foreign", {.foreign = 1}, 2, 0, bus_read_back, 1, 100},
    {"loss", {.loss = 1}, 0, -1, 0, 0, 0},
    {"reply_loss", {.reply_loss = 1}, 0, -1, 0, 0, 0},
};

} // namespace

TEST(BusMemory, HoldsWhatWasWrittenAndGivesItBack)
{
    card_farm farm;
    for (const size_t n : {size_t{1}, size_t{63}, size_t{64}, size_t{65}, bus_data_max}) {
        SCOPED_TRACE(n);
        const bytes data = counted(n);
        EXPECT_TRUE(ask(farm, writing(data)).empty()); // nobody waits for an answer
        EXPECT_EQ(farm.read_bus(at, n), data);
        const auto out = ask(farm, reading(static_cast<uint32_t>(n)));
        ASSERT_EQ(out.size(), 1u);
        const auto answer = out[0].view();
        EXPECT_EQ(answer.size(), std::max(n, bus_data_min) + bus_packet_overhead);
        EXPECT_EQ(judge_packet(answer, at), 0);
        EXPECT_EQ(packet_length_judge(answer, static_cast<uint32_t>(n)), 0);
        EXPECT_TRUE(std::equal(data.begin(), data.end(), answer.begin() + bus::data));
    }
    EXPECT_EQ(farm.written_bus(), (std::vector<extent>{{at, at + bus_data_max}}));
    EXPECT_TRUE(farm.cards().empty());
    EXPECT_EQ(farm.counts().refusals(), "none");
    EXPECT_EQ(farm.counts().bus_reads, 5u);
    EXPECT_EQ(farm.counts().bus_writes, 5u);
}

TEST(BusMemory, RefusesByName)
{
    for (const tampering& t : wrongs) {
        SCOPED_TRACE(t.name);
        card_farm farm;
        bytes packet = writing(counted(100));
        t.change(packet);
        if (t.closed) { close(packet); }
        EXPECT_TRUE(ask(farm, packet).empty());
        EXPECT_EQ(farm.counts().of(t.counted_as), 1u) << farm.counts().refusals();
        EXPECT_TRUE(farm.written_bus().empty());
    }
    card_farm farm;
    bytes padded = writing(counted(10));
    padded[bus::data + 10] = 1; // not summed, so the packet is as good as its sum says
    EXPECT_TRUE(ask(farm, padded).empty());
    EXPECT_EQ(farm.counts().of(mistake::bus_area_not_zero), 1u);
}

TEST(BusMemory, AnswersGoWrongAsToldAndOnlyOnce)
{
    for (const fault_case& c : faults) {
        SCOPED_TRACE(c.name);
        card_farm farm(c.faults);
        farm.write_bus(at, counted(100));
        const auto out = ask(farm, reading(100));
        ASSERT_EQ(out.size(), c.frames);
        if (!out.empty()) {
            const auto answer = out.back().view();
            EXPECT_EQ(judge_packet(answer, at), c.accepted);
            if (c.accepted == 0) {
                EXPECT_EQ(answer[bus::type], c.type);
                EXPECT_EQ(answer[bus::data], c.first);
                EXPECT_EQ(load_le32(&answer[bus::data_len]), c.length);
            }
        }
        const auto good = ask(farm, reading(100));
        ASSERT_EQ(good.size(), 1u);
        EXPECT_EQ(judge_packet(good[0].view(), at), 0);
        EXPECT_EQ(packet_length_judge(good[0].view(), 100), 0);
    }
}

TEST(BusMemory, RespondsToWritesWhenAsked)
{
    card_farm farm;
    farm.set_behaviour({.bus_responds = true});
    const auto out = ask(farm, writing(counted(10)));
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(judge_packet(out[0].view(), at), 0);
    EXPECT_EQ(out[0].bytes[bus::type], bus_response);
    EXPECT_EQ(out[0].bytes[bus::data], ack_good);
}
