// What goes over the cable, byte for byte, and what comes back; blocks of every size, good cards.
#include "bus/bus_bench.h"
#include "support/log_capture.h"

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;

void put_le(bytes& out, uint32_t value, size_t count)
{
    for (size_t i = 0; i < count; ++i) { out.push_back(static_cast<uint8_t>(value >> 8 * i)); }
}

// A request as the format has it, field by field, by other code than the link's.
bytes request_of(uint8_t type, uint32_t addr, uint32_t length, const bytes& area)
{
    bytes p{0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90};
    put_le(p, static_cast<uint32_t>(area.size() + 26), 4);
    p.insert(p.end(), {0, type, 0x07, 0x00, 0, 0});
    put_le(p, addr, 4);
    put_le(p, length, 4);
    p.insert(p.end(), area.begin(), area.end());
    uint32_t sum = 0;
    for (size_t i = 6; i < 24 + size_t{length}; ++i) { sum += i < p.size() ? uint32_t{p[i]} : 0; }
    put_le(p, sum, 2);
    return p;
}

bytes part(const bytes& of, size_t from, size_t count)
{
    return {of.begin() + static_cast<ptrdiff_t>(from), of.begin() + static_cast<ptrdiff_t>(from + count)};
}

class Packets : public BusTest {};

struct refusal {
    const char* name;
    const char* text;
    xfer handle;
    bool has_handle, has_data;
    uint32_t length;
};

} // namespace

TEST_F(Packets, AWriteGoesOutInPiecesOf8000AndTheRest)
{
    start_cards();
    const bytes data = content(20'000);
    ASSERT_EQ(Write_FPGA_Bus_Block(&links[0], block_addr, 20'000, data.data()), 0);
    ASSERT_TRUE(soon([&] { return packets().size() >= 3; }));
    EXPECT_EQ(packets(), (std::vector<bytes>{request_of(0, block_addr, 8000, part(data, 0, 8000)),
                                             request_of(0, block_addr + 8000, 8000, part(data, 8000, 8000)),
                                             request_of(0, block_addr + 16'000, 4000, part(data, 16'000, 4000))}));
    EXPECT_EQ(packets()[0].size(), 8026u);
    EXPECT_EQ(packets()[2].size(), 4026u);
    EXPECT_EQ(farm.read_bus(block_addr, data.size()), data);
    EXPECT_EQ(log_text(), "");
}

TEST_F(Packets, ShortWritesArePaddedAndSummedToTheirData)
{
    start_cards();
    const bytes data = content(64);
    std::vector<bytes> expected;
    for (const uint32_t n : {1u, 10u, 63u, 64u}) {
        ASSERT_EQ(Write_FPGA_Bus_Block(&links[0], block_addr, n, data.data()), 0);
        bytes area = part(data, 0, n);
        area.resize(64);
        expected.push_back(request_of(0, block_addr, n, area));
        EXPECT_EQ(expected.back().size(), 90u);
    }
    ASSERT_EQ(Write_FPGA_Bus_Block(&links[0], block_addr, 0, data.data()), 0); // nothing to send is no failure
    ASSERT_TRUE(soon([&] { return packets().size() >= 4; }));
    EXPECT_EQ(packets(), expected);
    EXPECT_EQ(farm.counts().refusals(), "none");
}

TEST_F(Packets, AReadAsksPieceByPieceAndTakesTheAnswers)
{
    start_cards();
    const bytes data = content(16'010);
    farm.write_bus(block_addr, data);
    bytes into(data.size() + 1, 0xEE);
    ASSERT_EQ(Read_FPGA_Bus_Block(&links[0], block_addr, 16'010, into.data()), 0);
    EXPECT_EQ(into.back(), 0xEE);
    into.pop_back();
    EXPECT_EQ(into, data);
    EXPECT_EQ(packets(), (std::vector<bytes>{request_of(1, block_addr, 8000, bytes(64)),
                                             request_of(1, block_addr + 8000, 8000, bytes(64)),
                                             request_of(1, block_addr + 16'000, 10, bytes(64))}));
    EXPECT_EQ(log_text(), "");
}

TEST_F(Packets, SixtyFourMebibytesGoThereAndBack)
{
    start_cards({}, {.receive_buffer_bytes = 256 << 20}); // a write waits for nobody: all of it may have to wait here
    const bytes data = content(bus_block_max);
    ASSERT_EQ(Write_FPGA_Bus_Block(&links[0], 0xF0000000, bus_block_max, data.data()), 0);
    ASSERT_TRUE(soon([&] { return farm.counts().bus_writes == 8389; })) << farm.counts().bus_writes;
    bytes into(data.size());
    ASSERT_EQ(Read_FPGA_Bus_Block(&links[0], 0xF0000000, bus_block_max, into.data()), 0);
    EXPECT_TRUE(into == data); // not EQ: it would print them
    EXPECT_EQ(farm.counts().refusals(), "none");
    EXPECT_EQ(log_text(), "");
}

TEST_F(Packets, ForeignTrafficDuringAReadIsPassedOver)
{
    start_cards({.foreign = 1.0, .runt = 0.5, .duplicate = 0.3});
    const bytes data = content(200'000);
    farm.write_bus(block_addr, data);
    bytes into(data.size());
    ASSERT_EQ(Read_FPGA_Bus_Block(&links[0], block_addr, 200'000, into.data()), 0);
    EXPECT_TRUE(into == data);
    EXPECT_EQ(packets().size(), 25u); // nothing was asked for twice
    EXPECT_GE(reported("recv_read_back_message_func", "recv_message_func_unit() failed(ret = -1)."), 25u);
}

TEST_F(Packets, WrongParametersAreNamedAndSendNothing)
{
    start_cards();
    bytes data(64);
    const refusal refusals[] = {
        {"no handle", "invalid parameter(xfer).", links[0], false, true, 64},
        {"no socket", "invalid parameter(xfer).", {0, links[0].sll}, true, true, 64},
        {"no address", "invalid parameter(xfer).", {links[0].sock_fd, nullptr}, true, true, 64},
        {"no data", "invalid parameter(data).", links[0], true, false, 64},
        {"too long", "invalid parameter(length).", links[0], true, true, bus_block_max + 1},
    };
    for (const refusal& r : refusals) {
        SCOPED_TRACE(r.name);
        const xfer* handle = r.has_handle ? &r.handle : nullptr;
        uint8_t* const at = r.has_data ? data.data() : nullptr;
        EXPECT_EQ(Write_FPGA_Bus_Block(handle, block_addr, r.length, at), -1);
        EXPECT_EQ(reported("Write_FPGA_Bus_Block", r.text), 1u) << log_text();
        EXPECT_EQ(Read_FPGA_Bus_Block(handle, block_addr, r.length, at), -1);
        EXPECT_EQ(reported("Read_FPGA_Bus_Block", r.text), 1u) << log_text();
        take_log();
    }
    EXPECT_EQ(send_message_func_unit(&links[0], block_addr, 8001, content(8001).data(), 0), -1);
    EXPECT_EQ(farm.counts().received, 0u);
}

// The link takes no packet of this size: three attempts, each ending with its first piece, and a hint for the user.
TEST_F(Packets, AWriteThatCannotGoOutIsTriedThreeTimes)
{
    start_cards();
    const bytes data = content(16'001);
    run_command("ip link set eth0 mtu 1500");
    EXPECT_EQ(Write_FPGA_Bus_Block(&links[0], block_addr, 16'001, data.data()), -1);
    EXPECT_EQ(reported("write_process_func", "send_message_func_unit() failed(i = 0, ret = -1)."), 3u) << log_text();
    EXPECT_EQ(logged("longer than the link takes: set its MTU to 9000"), 3u);
    EXPECT_EQ(reported("Write_FPGA_Bus_Block", "write_process_func() failed."), 1u);
    take_log();
    EXPECT_EQ(Write_FPGA_Bus_Block(&links[0], block_addr, 7000, data.data()), -1);
    EXPECT_EQ(reported("write_process_func", "send_message_func_unit() failed(ret = -1)."), 3u) << log_text();
    EXPECT_EQ(Write_FPGA_Bus_Block(&links[0], block_addr, 1000, data.data()), 0); // this one fits
    run_command("ip link set eth0 mtu 9000");
    EXPECT_EQ(semaphore_value(), 1);
}
