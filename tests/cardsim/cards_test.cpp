// What the cards remember, for tests that compare it: memory byte for byte, and the order in which a demo came.
#include "cardsim/cards.h"
#include "cardsim/requests.h"
#include "eth_raw/frame.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

using namespace rvk;

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
            std::vector<uint8_t> data(1 + random() % 200);
            for (size_t k = 0; k < data.size(); ++k) {
                data[k] = static_cast<uint8_t>(random());
                model[addr + static_cast<uint32_t>(k)] = data[k];
            }
            memory.write(addr, data);
        }
        std::vector<uint8_t> all(16000);
        memory.read(0u - 8000, all);
        std::vector<extent> stretches;
        for (const auto& [addr, value] : model) {
            ASSERT_EQ(all[addr + 8000u], value) << addr;
            if (stretches.empty() || stretches.back().end != addr) { stretches.push_back({addr, addr}); }
            ++stretches.back().end;
        }
        EXPECT_EQ(memory.written(), stretches);
    }
}

TEST(Playback, AnotherOrderThanTheDemosIsNamed)
{
    card_farm farm;
    const auto write = [&farm](uint8_t slot, uint32_t addr, const std::vector<uint8_t>& data) {
        std::vector<reply_frame> out;
        farm.request(write_frame({.code = code_write_ack, .addr = addr, .slot = slot}, data), 0, out);
    };
    write(1, 0xA2, {0x00, 0xCA, 0x9A, 0x3B});
    write(2, 0xA6, {8}); // another card's
    write(1, 0xA6, {8});
    write(1, 0xA7, {0});
    EXPECT_EQ(farm.playback(), (std::vector<std::string>{"a2 := 00 ca 9a 3b", "a6 := 08", "a7 := 00"}));
    EXPECT_EQ(check_playback(farm.playback()), "");
    write(1, 0xA0, {1});
    EXPECT_EQ(check_playback(farm.playback()), "'a0 := 01' in the place of 'picture 16'");
}
