// Poke as other code may call it; that no message buffer is kept is the fixture's to see.
#include "main/reg.h"

#include "eth_raw/frame.h"
#include "link/bench_link.h"

using namespace rvk;

namespace {

constexpr uint32_t addr = 0x1000000; // plain memory

using Reg = LinkTest;

} // namespace

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
