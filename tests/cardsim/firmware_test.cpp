// A card's firmware memory: what it takes for an image, and that nothing less ever counts as one.
#include "base/bytes.h"
#include "cardsim/firmware.h"
#include "cardsim/registers.h"
#include "cardsim/transfer.h"

#include <gtest/gtest.h>

#include <functional>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;
using enum mistake;
constexpr uint8_t slot = 3;

bytes image(size_t size)
{
    bytes b(size);
    for (size_t i = 0; i < size; ++i) { b[i] = static_cast<uint8_t>(i * 31 + 7); }
    return b;
}

// Everything a transfer writes, in order. Result: the first mistake, and at which write (from 1) it was.
struct verdict_of_all {
    mistake what = none;
    size_t at = 0;
    bool operator==(const verdict_of_all&) const = default;
};

verdict_of_all play(firmware_port& port, const firmware_transfer& t)
{
    size_t n = 0;
    for (size_t i = 0; i < t.registers.size(); ++i) {
        ++n;
        if (const mistake m = port.write_register(i, t.registers[i], slot); m != none) { return {m, n}; }
    }
    for (const bytes& piece : t.pieces) {
        ++n;
        if (const mistake m = port.piece(piece); m != none) { return {m, n}; }
    }
    return {};
}

struct tampering {
    const char* name;
    std::function<void(firmware_transfer&)> with; // a transfer of an image of 3,000 bytes: four pieces, 184 in the last
    mistake said;
    size_t at; // the write that is refused, from 1: seven registers, then the pieces
};

const tampering tamperings[] = {
    {"a total that holds no head", [](auto& t) { store_le32(&t.registers[0][0], 255); }, firmware_register_value, 1},
    {"a register too long", [](auto& t) { t.registers[0].push_back(0); }, firmware_register_length, 1},
    {"a register too short", [](auto& t) { t.registers[5].pop_back(); }, firmware_register_length, 6},
    {"received already", [](auto& t) { t.registers[1][3] = 1; }, firmware_register_value, 2},
    {"two files", [](auto& t) { t.registers[2][0] = 2; }, firmware_register_value, 3},
    {"another size than the total", [](auto& t) { ++t.registers[3][0]; }, firmware_register_value, 4},
    {"a v", [](auto& t) { t.registers[4][0] = 1; }, firmware_register_value, 5},
    {"another card's slot", [](auto& t) { t.registers[6][2] = slot + 1; }, firmware_register_value, 7},
    {"a slot in front",
     [](auto& t) {
         t.registers[6] = {slot, 0, 0};
     },
     firmware_register_value, 7},
    {"a short piece", [](auto& t) { t.pieces[1].pop_back(); }, firmware_piece_size, 9},
    {"a long piece", [](auto& t) { t.pieces[1].push_back(0); }, firmware_piece_size, 9},
    {"a last piece too long", [](auto& t) { t.pieces[3].push_back(0); }, firmware_piece_size, 11},
    {"a last piece too short", [](auto& t) { t.pieces[3].pop_back(); }, firmware_piece_size, 11},
    {"a piece too many", [](auto& t) { t.pieces.push_back({1}); }, firmware_piece_order, 12},
    {"a flipped bit in the image", [](auto& t) { t.pieces[2][5] ^= 1; }, firmware_head_checksum, 11},
    {"another checksum", [](auto& t) { t.pieces[0][131] ^= 0x80; }, firmware_head_checksum, 11},
    {"another size in the head", [](auto& t) { ++t.pieces[0][0]; }, firmware_head_size, 11},
    {"something behind the size", [](auto& t) { t.pieces[0][4] = 1; }, firmware_head_not_zero, 11},
    {"something before the checksum", [](auto& t) { t.pieces[0][129] = 1; }, firmware_head_not_zero, 11},
    {"something behind the checksum", [](auto& t) { t.pieces[0][132] = 1; }, firmware_head_not_zero, 11},
    {"something at the head's end", [](auto& t) { t.pieces[0][255] = 1; }, firmware_head_not_zero, 11},
};

} // namespace

TEST(Firmware, KeepsWhatItAcknowledgedByteForByte)
{
    firmware_port port;
    size_t n = 0;
    for (const size_t size : {0u, 1u, 768u, 769u, 3000u, 100'000u}) { // 768 and the head are a piece exactly
        SCOPED_TRACE(size);
        const firmware_transfer t = transfer_of(image(size), 0x0102, slot);
        EXPECT_EQ(t.pieces.size(), (size + 256 + 1023) / 1024);
        ASSERT_EQ(play(port, t), verdict_of_all{});
        ASSERT_EQ(port.files().size(), ++n);
        const firmware_file& f = port.files().back();
        EXPECT_EQ(f.device_type, 0x0102);
        EXPECT_TRUE(std::ranges::equal(f.image(), image(size)));
        EXPECT_EQ(f.bytes.size(), size + 256);
        EXPECT_TRUE(port.progress().whole);
    }
}

TEST(Firmware, NamesWhatIsWrongAndKeepsNothing)
{
    for (const tampering& c : tamperings) {
        SCOPED_TRACE(c.name);
        firmware_port port;
        firmware_transfer t = transfer_of(image(3000), 0x0102, slot);
        c.with(t);
        const verdict_of_all said = play(port, t);
        EXPECT_STREQ(name_of(said.what), name_of(c.said));
        EXPECT_EQ(said.at, c.at);
        const bool was_whole = c.said == firmware_piece_order; // and stays so
        EXPECT_EQ(port.files().size(), was_whole ? 1u : 0u);
        EXPECT_EQ(play(port, transfer_of(image(3000), 0x0102, slot)), verdict_of_all{}); // it takes the next one
        EXPECT_EQ(port.files().size(), was_whole ? 2u : 1u);
    }
}

// Whatever comes at whatever time: only the next register counts, and pieces only behind the last one.
TEST(Firmware, HoldsToTheOrder)
{
    const firmware_transfer t = transfer_of(image(100), 1, slot);
    for (size_t written = 0; written <= t.registers.size(); ++written) {
        for (size_t next = 1; next < t.registers.size(); ++next) {
            SCOPED_TRACE(std::to_string(written) + " written, then " + firmware_registers[next].name);
            firmware_port port;
            for (size_t i = 0; i < written; ++i) { ASSERT_EQ(port.write_register(i, t.registers[i], slot), none); }
            EXPECT_EQ(port.write_register(next, t.registers[next], slot),
                      next == written ? none : firmware_register_order);
        }
        firmware_port port;
        for (size_t i = 0; i < written; ++i) { ASSERT_EQ(port.write_register(i, t.registers[i], slot), none); }
        EXPECT_EQ(port.piece(t.pieces[0]), written == t.registers.size() ? none : firmware_piece_order);
    }
    firmware_port port;
    ASSERT_EQ(play(port, t), verdict_of_all{});
    EXPECT_EQ(port.write_register(6, t.registers[6], slot), firmware_register_order); // behind a whole one too
}

TEST(Firmware, ARefusedPieceMayComeAgainAndAnAbandonedTransferIsCounted)
{
    const firmware_transfer t = transfer_of(image(3000), 1, slot);
    firmware_port port;
    firmware_transfer cut = t;
    cut.pieces.resize(2);
    ASSERT_EQ(play(port, cut), verdict_of_all{});
    EXPECT_EQ(port.next_piece(), 3u);
    EXPECT_EQ(port.progress(), (firmware_progress{7, 3256, 2048, 0, 0, false}));
    bytes wrong = t.pieces[2];
    wrong.pop_back();
    EXPECT_EQ(port.piece(wrong), firmware_piece_size);
    EXPECT_EQ(port.piece(t.pieces[2]), none);
    bytes flipped = t.pieces[3];
    flipped[0] ^= 1;
    EXPECT_EQ(port.piece(flipped), firmware_head_checksum);
    EXPECT_TRUE(port.files().empty());
    EXPECT_EQ(port.piece(t.pieces[3]), none); // the last one again, unharmed
    ASSERT_EQ(port.files().size(), 1u);
    EXPECT_TRUE(std::ranges::equal(port.files()[0].image(), image(3000)));

    ASSERT_EQ(play(port, cut), verdict_of_all{});
    ASSERT_EQ(play(port, t), verdict_of_all{});
    EXPECT_EQ(port.progress(), (firmware_progress{7, 3256, 3256, 1, 2, true}));
}
