// The registers that mean something, over frames: that each address reaches its part, what the cards answer when they
// refuse, and that they misbehave only as they are told to.
#include "base/bytes.h"
#include "cardsim/cards.h"
#include "cardsim/registers.h"
#include "cardsim/requests.h"
#include "cardsim/transfer.h"
#include "eth_raw/frame.h"

#include <gtest/gtest.h>

#include <algorithm>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;

// A controller and its cards, one exchange at a time.
struct bench {
    // What came back, as as_seen() has it; empty when nothing did.
    std::string ask(const bytes& frame)
    {
        out.clear();
        farm.request(frame, 0, out);
        return out.empty() ? "" : as_seen(out.back().view());
    }
    std::string write(uint8_t slot, uint32_t addr, const bytes& data, uint8_t code = code_write_ack)
    {
        return ask(write_frame({.code = code, .addr = addr, .slot = slot}, data));
    }
    std::string read(uint8_t slot, uint32_t addr, uint16_t len)
    {
        return ask(read_frame({.code = code_read, .addr = addr, .slot = slot}, len));
    }
    bytes answer() const { return {out.back().view().begin() + reply::payload, out.back().view().end() - 2}; }

    std::string transfer(uint8_t slot, const firmware_transfer& t) // the first answer that is not good
    {
        for (size_t i = 0; i < t.registers.size(); ++i) {
            const std::string said = write(slot, firmware_registers[i].addr, t.registers[i]);
            if (said != "11/0/0") { return said; }
        }
        for (const bytes& piece : t.pieces) {
            const std::string said = write(slot, firmware_data, piece);
            if (said != "11/0/0") { return said; }
        }
        return "11/0/0";
    }

    card_farm farm;
    std::vector<reply_frame> out;
};

firmware_transfer small_transfer(uint8_t slot) { return transfer_of(bytes(3000, 0x5A), 0x0102, slot); }

void put_picture(bench& b, uint32_t control, uint32_t data, uint8_t buffer, const bytes& pixels)
{
    const auto hor = static_cast<uint8_t>(pixels.size() / 4);
    EXPECT_EQ(b.write(1, control, {0, hor, 0, 1, 0, buffer}), "11/0/0");
    EXPECT_EQ(b.write(1, control, {1}), "11/0/0");
    EXPECT_EQ(b.write(1, data, pixels, code_write), "");
    EXPECT_EQ(b.write(1, control, {0}), "11/0/0");
}

} // namespace

TEST(Registers, BothWaysIntoPictureMemoryLeadToTheirOwnBuffers)
{
    bench b;
    put_picture(b, 0x7080, 0x60000, 25, bytes(40, 1));
    put_picture(b, 0x7040, 0x40000, 26, bytes(80, 2));
    EXPECT_EQ(b.farm.picture({0, 1}, 25), bytes(40, 1));
    EXPECT_EQ(b.farm.picture({0, 1}, 26), bytes(80, 2));
    EXPECT_EQ(b.farm.pictures({0, 1}),
              (std::vector<picture_record>{{25, 10, 1, 40, true, 1}, {26, 20, 1, 80, true, 1}}));
    EXPECT_EQ(b.farm.pictures({0, 2}).size(), 0u);
    EXPECT_EQ(b.farm.read_pictures({0, 1}, uint64_t{26} << 27, 81), [] {
        bytes expected(81, 2);
        expected[80] = 0;
        return expected;
    }());
    EXPECT_EQ(b.farm.counts().refusals(), "none");
    EXPECT_EQ(b.farm.written({0, 1}).size(), 2u); // the control registers; the stream is no register's value
}

TEST(Registers, AReadBackGetsThePicture)
{
    bench b;
    bytes pixels(400);
    for (size_t i = 0; i < pixels.size(); ++i) { pixels[i] = static_cast<uint8_t>(i * 3); }
    put_picture(b, demo_control, demo_data, 16, pixels);
    EXPECT_EQ(b.write(1, 0xA0008, {0, 0, 0, 0x10, 7, 0, 0}, code_write), "");
    EXPECT_EQ(b.write(1, 0xA00FF, {1}, code_write), "");
    EXPECT_EQ(b.read(1, 0xA0FFD, 1), "00/0/1");
    EXPECT_EQ(b.read(1, 0xB0000, 400), "00/0/400");
    EXPECT_EQ(b.answer(), pixels);
    EXPECT_EQ(b.farm.counts().refusals(), "none");
    EXPECT_EQ(b.read(1, 0xB0000, 400), "00/1/0"); // refused: there was no start
    EXPECT_EQ(b.read(9, 0xB0000, 400), "00/1/0"); // by a card that was never written to, too
    EXPECT_EQ(b.read(1, 0xA0FFD, 1), "00/1/0");
    EXPECT_EQ(b.farm.counts().refusals(), "read_status_order 1, read_window_order 2");
}

TEST(Registers, ARefusedWriteSaysSoAndChangesNothing)
{
    bench b;
    EXPECT_EQ(b.write(1, demo_control, {1}), "11/1/0");
    EXPECT_EQ(b.write(1, demo_data, bytes(100), code_write), ""); // nobody to tell
    EXPECT_EQ(b.write(1, read_command_register, bytes(6), code_write), "");
    EXPECT_EQ(b.write(3, firmware_data, bytes(100)), "11/1/0");
    EXPECT_TRUE(b.farm.written({0, 1}).empty());
    EXPECT_EQ(b.farm.counts().bytes_written, 0u);
    EXPECT_EQ(b.farm.counts().refused(), 4u);
    EXPECT_EQ(b.farm.counts().refusals(),
              "picture_start_order 1, picture_data_order 1, read_command_length 1, firmware_piece_order 1");
    // Tolerated: the picture before it was cut off, and this one is as good as any.
    EXPECT_EQ(b.write(1, demo_control, {0, 1, 0, 1, 0, 16}), "11/0/0");
    EXPECT_EQ(b.write(1, demo_control, {1}), "11/0/0");
    put_picture(b, demo_control, demo_data, 17, bytes(4, 9));
    EXPECT_EQ(b.farm.counts().of(mistake::picture_not_ended), 1u);
    EXPECT_EQ(b.farm.pictures({0, 1}).front().whole, false);
}

TEST(Registers, FirmwareGoesToTheSlotAddressed)
{
    bench b;
    EXPECT_EQ(b.transfer(3, small_transfer(3)), "11/0/0");
    EXPECT_EQ(b.transfer(4, small_transfer(3)), "11/1/0");
    EXPECT_EQ(b.farm.counts().refusals(), "firmware_register_value 1");
    ASSERT_EQ(b.farm.firmware({0, 3}).size(), 1u);
    EXPECT_EQ(b.farm.firmware({0, 3})[0].device_type, 0x0102);
    EXPECT_TRUE(std::ranges::equal(b.farm.firmware({0, 3})[0].image(), bytes(3000, 0x5A)));
    EXPECT_TRUE(b.farm.firmware({0, 4}).empty());
    EXPECT_EQ(b.farm.transfer({0, 3}).completed, 1u);
    EXPECT_EQ(b.farm.transfer({0, 4}).registers, 6u);
}

TEST(Registers, ATransferSuffersWhereItIsToldTo)
{
    const firmware_transfer t = small_transfer(3); // four pieces
    bench b;
    for (uint32_t k = 1; k <= 7; ++k) {
        SCOPED_TRACE(k);
        b.farm.set_behaviour({.refuse_register = k, .refuse_register_times = 2, .refused_status = 5});
        EXPECT_EQ(b.transfer(3, t), "11/5/0");
        if (k > 1) { EXPECT_EQ(b.farm.transfer({0, 3}).registers, k - 1); }
        EXPECT_EQ(b.write(3, firmware_registers[k - 1].addr, t.registers[k - 1]), "11/5/0");
        EXPECT_EQ(b.write(3, firmware_registers[k - 1].addr, t.registers[k - 1]), "11/0/0");
    }
    EXPECT_EQ(b.farm.counts().of(misbehaviour::refused_register), 14u);

    b.farm.set_behaviour({.refuse_piece = 4});
    EXPECT_EQ(b.transfer(3, t), "11/2/0");
    EXPECT_TRUE(b.farm.firmware({0, 3}).empty());
    EXPECT_EQ(b.farm.transfer({0, 3}).received, 3072u);
    EXPECT_EQ(b.write(3, firmware_data, t.pieces[3]), "11/0/0"); // refused once
    EXPECT_EQ(b.farm.firmware({0, 3}).size(), 1u);

    b.farm.set_behaviour({.silent_piece = 2});
    EXPECT_EQ(b.transfer(3, t), "");
    EXPECT_EQ(b.write(3, firmware_data, t.pieces[1]), ""); // and silent it stays
    EXPECT_EQ(b.farm.transfer({0, 3}).received, 1024u);
    EXPECT_EQ(b.farm.firmware({0, 3}).size(), 1u);

    b.farm.set_behaviour({});
    EXPECT_EQ(b.transfer(3, t), "11/0/0");
    EXPECT_EQ(b.farm.firmware({0, 3}).size(), 2u);
    EXPECT_EQ(b.farm.counts().refusals(), "none");
    EXPECT_EQ(b.farm.counts().injections(), "refused-register 14, refused-piece 1, silent-piece 2");
}

TEST(Registers, GenerationReadinessAndStatusAnswerAsToldTo)
{
    bench b;
    EXPECT_EQ(b.read(2, 0x10000015, 1), "00/0/1");
    EXPECT_EQ(b.answer(), bytes{0});
    EXPECT_EQ(b.read(1, 0x00F00009, 1), "00/0/1");
    EXPECT_NE(b.answer(), bytes{0xFF});
    b.farm.write({0, 2}, 0x10000015, bytes{7});
    EXPECT_EQ(b.read(2, 0x10000015, 1), "00/0/1");
    EXPECT_EQ(b.answer(), bytes{7});

    b.farm.set_behaviour({.generation = 1, .readiness = 0xFF, .generation_bytes = 1400, .status_bytes = 2000});
    EXPECT_EQ(b.read(2, 0x10000015, 1), "00/0/1400");
    EXPECT_EQ(b.answer()[0], 1);
    EXPECT_NE(b.answer()[1], 0);
    EXPECT_EQ(b.read(1, 0x10000015, 1), "00/0/1"); // another card's
    EXPECT_EQ(b.answer(), bytes{0});
    EXPECT_EQ(b.read(1, 0x00F00009, 1), "00/0/1");
    EXPECT_EQ(b.answer(), bytes{0xFF});
    EXPECT_EQ(b.write(1, 0xA0008, {0, 0, 0, 0, 1, 0, 0}), "11/0/0");
    EXPECT_EQ(b.write(1, 0xA00FF, {1}), "11/0/0");
    EXPECT_EQ(b.read(1, 0xA0FFD, 1), "00/0/2000");

    b.farm.set_behaviour({.readiness_silent = true});
    EXPECT_EQ(b.read(1, 0x00F00009, 1), "");
    EXPECT_EQ(b.farm.counts().injections(), "silent-readiness 1, oversized-answer 2");
    EXPECT_EQ(b.farm.playback(), (std::vector<std::string>{"ready? 00", "ready? ff", "ready? -"}));
}

TEST(Registers, AStartOfTheDemoIsNoted)
{
    bench b;
    EXPECT_EQ(b.read(1, 0x00F00009, 1), "00/0/1");
    EXPECT_EQ(b.write(1, 0xA2, {0x00, 0xCA, 0x9A, 0x3B}), "11/0/0");
    EXPECT_EQ(b.write(2, 0xA6, {8}), "11/0/0"); // another card's
    EXPECT_EQ(b.write(1, 0xA6, {8}), "11/0/0");
    EXPECT_EQ(b.write(1, 0xA7, {0}), "11/0/0");
    put_picture(b, demo_control, demo_data, 16, bytes(4));
    EXPECT_EQ(b.farm.playback(),
              (std::vector<std::string>{"ready? 00", "a2 := 00 ca 9a 3b", "a6 := 08", "a7 := 00", "picture 16"}));
    EXPECT_EQ(check_playback(b.farm.playback()), "");
    EXPECT_EQ(b.write(1, 0xA0, {1}), "11/0/0"); // out of order, which the FPGA does not mind
    EXPECT_EQ(check_playback(b.farm.playback()), "'a0 := 01' in the place of 'a7 := 01'");
}

TEST(Registers, TheLvdsStatusIsGoodBehindAsManyWrongOnesAsAsked)
{
    bench b;
    EXPECT_EQ(b.read(1, lvds_register, 5), "00/0/5");
    EXPECT_EQ(b.answer(), bytes(5)); // its memory
    b.farm.set_behaviour({.lvds_wrong_reads = 2});
    const bytes good(lvds_good.begin(), lvds_good.end()), wrong(lvds_wrong.begin(), lvds_wrong.end());
    for (const bytes& expected : {wrong, wrong, good, good}) {
        EXPECT_EQ(b.read(1, lvds_register, 5), "00/0/5");
        EXPECT_EQ(b.answer(), expected);
    }
    EXPECT_EQ(b.read(2, lvds_register, 5), "00/0/5"); // of another slot
    EXPECT_EQ(b.answer(), bytes(5));
}
