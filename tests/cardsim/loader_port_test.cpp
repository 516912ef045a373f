// The picture loader's way in: a piece is stored where its command says, whole or not at all.
#include "base/bytes.h"
#include "cardsim/cards.h"
#include "cardsim/requests.h"
#include "eth_raw/frame.h"

#include <gtest/gtest.h>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;
constexpr card_id card{0, 0};

struct loader {
    explicit loader(size_t which) : registers(loader_memories[which]) {}
    void write(uint32_t addr, const bytes& data, uint8_t slot = 0)
    {
        farm.request(write_frame({.code = code_write, .addr = addr, .slot = slot}, data), 0, out);
    }
    // As the controller's plain write cuts a piece.
    void frames(const bytes& piece)
    {
        for (size_t from = 0; from < piece.size(); from += frame_data_max) {
            const auto n = std::min(frame_data_max, piece.size() - from);
            const auto begin = piece.begin() + static_cast<ptrdiff_t>(from);
            write(registers.data + static_cast<uint32_t>(from), {begin, begin + static_cast<ptrdiff_t>(n)});
        }
    }
    void command(uint32_t addr, uint16_t bursts, uint8_t last = 1, size_t length = 7)
    {
        bytes block(8);
        store_le32(block.data(), addr);
        store_le16(&block[4], bursts);
        block[6] = last;
        block.resize(length);
        write(registers.command, block);
    }
    loader_registers registers;
    card_farm farm;
    std::vector<reply_frame> out;
};

bytes filled(size_t n, uint8_t from)
{
    bytes data(n);
    for (size_t i = 0; i < n; ++i) { data[i] = static_cast<uint8_t>(from + i * 3 + i / 256); }
    return data;
}

struct wrong_case {
    const char* name;
    const char* refusals;
    void (*play)(loader& l);
};

const wrong_case wrongs[] = {
    {"a frame lost in the middle", "loader_data_order 1, loader_command_value 1",
     [](loader& l) {
         l.write(l.registers.data, filled(1400, 1));
         l.write(l.registers.data + 2800, filled(1400, 2));
         l.command(0, 66);
     }},
    {"data behind a frame that was not full", "loader_data_order 1, loader_command_value 1",
     [](loader& l) {
         l.write(l.registers.data, filled(100, 1));
         l.write(l.registers.data + 100, filled(100, 1));
         l.command(0, 4);
     }},
    {"too much in a piece", "loader_data_excess 1", [](loader& l) { l.frames(filled(loader_piece_max + 40, 1)); }},
    {"a command of the wrong length", "loader_command_length 1", [](loader& l) { l.command(0, 1, 1, 6); }},
    {"a command without data", "loader_command_order 1", [](loader& l) { l.command(0, 1); }},
    {"too few bursts", "loader_command_value 1",
     [](loader& l) {
         l.frames(filled(65, 1));
         l.command(0, 1);
     }},
    {"another last byte", "loader_command_value 1",
     [](loader& l) {
         l.frames(filled(64, 1));
         l.command(0, 1, 0);
     }},
};

} // namespace

TEST(LoaderPort, StoresPiecesWhereTheirCommandsSay)
{
    for (size_t memory = 0; memory < loader_memories.size(); ++memory) {
        SCOPED_TRACE(memory);
        loader l(memory);
        const bytes first = filled(loader_piece_max, 1), rest = filled(1401, 9);
        l.frames(first);
        l.command(0x2000, 240);
        l.frames(rest);
        l.command(0x2000 + 1920, 22);
        EXPECT_EQ(l.farm.counts().refusals(), "none");
        EXPECT_TRUE(l.out.empty()); // plain writes
        EXPECT_EQ(l.farm.loaded(card, memory), (std::vector<extent>{{0x10000, 0x10000 + first.size() + rest.size()}}));
        EXPECT_EQ(l.farm.read_loaded(card, memory, 0x10000, first.size()), first);
        EXPECT_EQ(l.farm.read_loaded(card, memory, 0x10000 + first.size(), rest.size()), rest);
        EXPECT_TRUE(l.farm.loaded(card, 1 - memory).empty());
    }
}

TEST(LoaderPort, RefusesByNameAndStoresNothing)
{
    for (const wrong_case& c : wrongs) {
        SCOPED_TRACE(c.name);
        loader l(0);
        c.play(l);
        EXPECT_EQ(l.farm.counts().refusals(), c.refusals);
        EXPECT_TRUE(l.farm.loaded(card, 0).empty());
    }
}

TEST(LoaderPort, APieceWithoutItsCommandIsLostAndTheNextIsGood)
{
    loader l(1);
    l.frames(filled(3000, 1));
    l.frames(filled(64, 7));
    l.command(0, 1);
    EXPECT_EQ(l.farm.counts().refusals(), "loader_piece_abandoned 1");
    EXPECT_EQ(l.farm.read_loaded(card, 1, 0, 64), filled(64, 7));
}

TEST(LoaderPort, IsPlainMemoryInEveryOtherCard)
{
    loader l(0);
    l.write(0xB0000 + 40, filled(1400, 1), 1);
    l.write(0xA0001, filled(7, 5), 1);
    EXPECT_EQ(l.farm.counts().refusals(), "none");
    EXPECT_EQ(l.farm.read({0, 1}, 0xB0000 + 40, 1400), filled(1400, 1));
}
