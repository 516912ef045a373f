// Good cards: what was written is there, byte for byte, and every request gets the answer it is owed.
#include "base/bytes.h"
#include "cardsim/cards.h"
#include "cardsim/requests.h"
#include "eth_raw/frame.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;

std::vector<reply_frame> ask(card_farm& farm, const bytes& frame, uint64_t now_us = 0)
{
    std::vector<reply_frame> out;
    farm.request(frame, now_us, out);
    return out;
}

} // namespace

TEST(CardFarm, AnswersWithTheRequestsFields)
{
    card_farm farm;
    const bytes data{0xDE, 0xAD, 0xBE, 0xEF, 0x01};
    const test_request write{.code = code_write_ack, .addr = 0xFFFFFFFE, .seq = 0xABCD, .model = 0x0102, .slot = 7};
    const auto acknowledged = ask(farm, write_frame(write, data));
    ASSERT_EQ(acknowledged.size(), 1u);
    EXPECT_EQ(as_seen(acknowledged[0].view()), "11/0/0");

    test_request read = write;
    read.code = code_read;
    const auto answered = ask(farm, read_frame(read, 5));
    ASSERT_EQ(answered.size(), 1u);
    EXPECT_EQ(as_seen(answered[0].view()), "00/0/5");
    const uint8_t* f = answered[0].bytes.data();
    EXPECT_EQ(load_le16(f + reply::model), 0x0102);
    EXPECT_EQ(f[reply::slot], 7);
    EXPECT_EQ(load_le16(f + reply::seq), 0xABCD);
    EXPECT_EQ(load_le32(f + reply::addr), 0xFFFFFFFEu);
    EXPECT_EQ(bytes(f + reply::payload, f + reply::payload + 5), data); // over the end of the addresses to their start
    EXPECT_EQ(farm.read({0x0102, 7}, 0, 3), (bytes{0xBE, 0xEF, 0x01}));
}

TEST(CardFarm, KeepsCardsApartAndIsSilentToPlainWrites)
{
    card_farm farm;
    EXPECT_TRUE(ask(farm, write_frame({.code = code_write, .slot = 1}, bytes{1})).empty());
    EXPECT_TRUE(ask(farm, write_frame({.code = code_write, .slot = 2}, bytes{2})).empty());
    EXPECT_TRUE(ask(farm, write_frame({.code = code_write, .model = 1, .slot = 1}, bytes{3})).empty());
    EXPECT_EQ(farm.read({0, 1}, 0x1000, 2), (bytes{1, 0}));
    EXPECT_EQ(farm.read({0, 2}, 0x1000, 2), (bytes{2, 0}));
    EXPECT_EQ(farm.read({1, 1}, 0x1000, 2), (bytes{3, 0}));
    EXPECT_EQ(farm.cards(), (std::vector<card_id>{{0, 1}, {0, 2}, {1, 1}}));
    EXPECT_EQ(farm.counts().plain_writes, 3u);
    EXPECT_EQ(farm.counts().bytes_written, 3u);
}

TEST(CardFarm, RefusesByNameAndIgnoresStrangers)
{
    card_farm farm;
    bytes broken = write_frame({.code = code_write_ack}, bytes{1});
    broken.back() ^= 1;
    EXPECT_TRUE(ask(farm, broken).empty());
    EXPECT_TRUE(ask(farm, read_frame({}, 0)).empty());
    EXPECT_TRUE(ask(farm, bytes(60, 0xFF)).empty());
    EXPECT_EQ(farm.counts().refused(), 2u);
    EXPECT_EQ(farm.counts().refusals(), "len_zero 1, wrong_checksum 1");
    EXPECT_EQ(farm.counts().of(verdict::foreign), 1u);
    EXPECT_TRUE(farm.cards().empty());
}

TEST(CardFarm, RecordsWhatTheControllerSentUpToItsBound)
{
    card_farm farm({.loss = 1});
    farm.record_history(2);
    const bytes first = read_frame({}, 4), second = read_frame({}, 0);
    ask(farm, first, 10);
    ask(farm, bytes(60, 0xFF), 11);
    ask(farm, second, 12);
    ask(farm, first, 13);
    const auto kept = farm.history();
    ASSERT_EQ(kept.size(), 2u);
    EXPECT_EQ(kept[0].frame, first);
    EXPECT_EQ(kept[0].time_us, 10u);
    EXPECT_TRUE(kept[0].lost);
    EXPECT_EQ(kept[1].frame, second);
    EXPECT_EQ(kept[1].said, verdict::len_zero);
    EXPECT_EQ(farm.history_overflow(), 1u);
}

TEST(CardMemory, AgreesWithAPlainMapAndListsWhatWasWritten)
{
    for (uint32_t seed = 1; seed <= 20; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        card_memory memory;
        std::map<uint32_t, uint8_t> model;
        for (int i = 0; i < 300; ++i) {
            // Around the ends of the address space, where pages meet and stretches join.
            const uint32_t addr = static_cast<uint32_t>(random() % 12000) - 6000;
            bytes data(1 + random() % 200);
            for (size_t k = 0; k < data.size(); ++k) {
                data[k] = static_cast<uint8_t>(random());
                model[addr + static_cast<uint32_t>(k)] = data[k];
            }
            memory.write(addr, data);
        }
        bytes all(16000);
        memory.read(0u - 8000, all);
        std::vector<extent> stretches;
        for (const auto& [addr, value] : model) {
            ASSERT_EQ(all[addr + 8000u], value) << addr;
            if (stretches.empty() || stretches.back().end != addr) { stretches.push_back({addr, addr}); }
            ++stretches.back().end;
        }
        EXPECT_EQ(memory.written(), stretches);
        bytes untouched(100, 1);
        memory.read(0x40000000, untouched);
        EXPECT_EQ(untouched, bytes(100, 0));
    }
}
