// Peek, poke and the dump as other code may call them; that no message buffer is kept is the fixture's to see.
#include "main/reg.h"

#include "eth_raw/frame.h"
#include "link/bench_link.h"
#include "support/log_capture.h"

using namespace rvk;

namespace {

constexpr uint32_t addr = 0x1000000; // plain memory

using Reg = LinkTest;

template <typename Action>
std::string printed_by(Action action)
{
    testing::internal::CaptureStdout();
    action();
    return testing::internal::GetCapturedStdout();
}

} // namespace

TEST_F(Reg, ADumpHasFourWordsALineAndTheRestBehindThem)
{
    static constexpr struct {
        uint32_t addr;
        int length;
        const char* text;
    } rows[] = {
        {0x20, 0, "\n00000020: \n"},
        {0x20, 3, "\n00000020: 000102\n"},
        {0x20, 6, "\n00000020: 00010203 0405\n"},
        {0x1000, 16, "\n00001000: 00010203 04050607 08090a0b 0c0d0e0f \n"},
        {0xFFFFFFF0, 17, "\nfffffff0: 00010203 04050607 08090a0b 0c0d0e0f 10\n"},
        {0xFFFFFFF0, 20, "\nfffffff0: 00010203 04050607 08090a0b 0c0d0e0f \n00000000: 10111213 \n"},
    };
    uint8_t data[20];
    for (uint8_t i = 0; i < sizeof data; ++i) { data[i] = i; }
    for (const auto& row : rows) {
        EXPECT_EQ(printed_by([&] { process_recvbuf(data, row.addr, row.length); }), row.text);
    }
    EXPECT_EQ(printed_by([] { process_recvbuf(nullptr, 0x20, 4); }), "");
}

TEST_F(Reg, APeekSaysWhatTheCardSaid)
{
    const struct {
        card_faults faults;
        int32_t result;
        reg_answer answer;
        const char* text;
    } rows[] = {
        {{}, 0, {ack_good, 2}, "\n01000000: aabb\n"},
        {{.wrong_read = 1}, -1, {2, 0}, "\n01000000: \n"},
        {{.read_oversized = 1}, -1, {ack_good, 0}, "\n01000000: \n"},
        {{.loss = 1}, -1, {no_answer, 0}, "\n01000000: \n"},
    };
    farm.write(near_card, addr, std::vector<uint8_t>{0xAA, 0xBB});
    for (const auto& row : rows) {
        farm.set_faults(row.faults);
        reg_answer answer{77, 77};
        int32_t result = 1;
        EXPECT_EQ(printed_by([&] { result = read_reg(0, 0, near_card.slot, addr, 2, &answer); }), row.text);
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(answer.ack, row.answer.ack);
        EXPECT_EQ(answer.received, row.answer.received);
    }
    EXPECT_EQ(logged("read reg 0x1000000\n"), 4u);
    EXPECT_NE(read_reg(1, 0, near_card.slot, addr, 2), 0) << "a link that is not open, and nobody who wants the answer";
}

TEST_F(Reg, APokeWritesOneZeroByteAcknowledged)
{
    farm.write(near_card, addr, std::vector<uint8_t>{0xAA, 0xBB});
    EXPECT_EQ(write_reg(0, 0, near_card.slot, addr), 0);
    EXPECT_EQ(farm.read(near_card, addr, 2), (std::vector<uint8_t>{0x00, 0xBB}));
    const auto frames = frames_to(addr);
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(frames[0].fields.code, code_write_ack);
    EXPECT_EQ(frames[0].fields.len, 1u);
}
