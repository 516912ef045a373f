// What is left behind for people: capture files of failing tests, and what the cards held.
#include "base/bytes.h"
#include "cardsim/cards.h"
#include "cardsim/requests.h"
#include "cardsim/state.h"
#include "files/bmp.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;

bytes contents(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

class Files : public testing::Test {
protected:
    Files()
    {
        std::string pattern = testing::TempDir() + "cardsim-XXXXXX";
        folder = mkdtemp(pattern.data());
    }
    ~Files() override { std::filesystem::remove_all(folder); }
    std::filesystem::path folder;
};

} // namespace

TEST_F(Files, ACaptureHoldsTheLastFramesBothWays)
{
    card_farm farm;
    farm.keep_trail(3);
    std::vector<reply_frame> out;
    const bytes first = read_frame({.seq = 1}, 4), last = read_frame({.seq = 2}, 4);
    farm.request(first, 1, out);
    farm.request(last, 5'000'007, out);
    ASSERT_EQ(out.size(), 2u); // four frames: the first request is forgotten
    ASSERT_EQ(farm.write_pcap(folder / "frames"), "");

    const bytes file = contents(folder / "frames");
    const bytes header{0xD4, 0xC3, 0xB2, 0xA1, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 0, 0, 1, 0, 0, 0};
    ASSERT_GE(file.size(), header.size());
    EXPECT_TRUE(std::equal(header.begin(), header.end(), file.begin()));
    size_t at = header.size();
    for (const bytes& expected :
         {bytes(out[0].view().begin(), out[0].view().end()), last, bytes(out[1].view().begin(), out[1].view().end())}) {
        ASSERT_GE(file.size(), at + 16 + expected.size());
        EXPECT_EQ(load_le32(&file[at + 8]), expected.size());
        EXPECT_EQ(load_le32(&file[at + 12]), expected.size());
        EXPECT_TRUE(std::equal(expected.begin(), expected.end(), &file[at + 16]));
        at += 16 + expected.size();
    }
    EXPECT_EQ(at, file.size());
    EXPECT_EQ(load_le32(&file[at - out[1].length - 16]), 5u); // seconds and microseconds of the last one
    EXPECT_EQ(load_le32(&file[at - out[1].length - 12]), 7u);
}

TEST_F(Files, StateIsTextForPeopleAndBytesForPrograms)
{
    card_farm farm;
    const bytes picture(70'000, 0x3C);
    farm.write({0, 2}, 0x10, bytes{1, 2, 3});
    farm.write({0, 2}, 0x20, bytes(17, 0xFF));
    farm.write({0, 2}, 0x80000000, picture);
    ASSERT_EQ(save_state(farm, folder / "new" / "state", "card0"), "");
    const bytes text = contents(folder / "new/state/card0-model0-slot2.txt");
    EXPECT_EQ(std::string(text.begin(), text.end()),
              "# card0 model 0 slot 2: what was written; hexadecimal, in memory order\n"
              "00000010  01 02 03\n"
              "00000020  ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff ff\n"
              "00000030  ff\n"
              "80000000  70000 bytes, in card0-model0-slot2-80000000.bin\n");
    EXPECT_EQ(contents(folder / "new/state/card0-model0-slot2-80000000.bin"), picture);
}

// The head, field by field, as viewers take it; and lines of 24 bits, which are padded.
TEST(Bmp, HasTheHeadAndTheOrderOfItsKind)
{
    const bytes pixels{0x55, 1, 2, 3, 0x55, 4, 5, 6, 0x55, 7, 8, 9, 0x55, 10, 11, 12};
    const bytes head{'B', 'M', 70, 0, 0, 0, 0, 0,  0, 0, 54, 0, 0, 0, 40, 0, 0, 0, 2, 0, 0, 0, 2, 0, 0, 0, 1,
                     0,   32,  0,  0, 0, 0, 0, 16, 0, 0, 0,  0, 0, 0, 0,  0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    bytes wide = head;
    wide.insert(wide.end(), {9, 8, 7, 0x55, 12, 11, 10, 0x55, 3, 2, 1, 0x55, 6, 5, 4, 0x55});
    EXPECT_EQ(bmp_of(pixels, 2, 2, 32), wide);
    bytes narrow = head;
    narrow[28] = 24;
    narrow.insert(narrow.end(), {9, 8, 7, 12, 11, 10, 0, 0, 3, 2, 1, 6, 5, 4, 0, 0});
    EXPECT_EQ(bmp_of(pixels, 2, 2, 24), narrow);
}
