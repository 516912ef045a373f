// What is left behind for people: capture files of failing tests, and what the cards held.
#include "base/bytes.h"
#include "cardsim/cards.h"
#include "cardsim/registers.h"
#include "cardsim/requests.h"
#include "cardsim/state.h"
#include "cardsim/transfer.h"
#include "eth_raw/frame.h"
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

TEST_F(Files, AFileThatCannotBeWrittenIsNamed)
{
    card_farm farm;
    const std::string error = farm.write_pcap(folder / "no folder" / "frames");
    EXPECT_NE(error.find("no folder/frames: cannot be created: No such file"), std::string::npos) << error;
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

TEST_F(Files, PicturesAndImagesAreSavedForPeople)
{
    card_farm farm;
    std::vector<reply_frame> out;
    const auto send = [&](uint8_t slot, uint32_t addr, const bytes& data) {
        farm.request(write_frame({.code = code_write_ack, .addr = addr, .slot = slot}, data), 0, out);
    };
    send(1, demo_control, {0, 1, 0, 2, 0, 16});
    send(1, demo_control, {1});
    send(1, demo_data, {0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88});
    ASSERT_EQ(save_state(farm, folder, "card0"), "");
    EXPECT_TRUE(std::filesystem::exists(folder / "card0-model0-slot1-buffer16-incomplete.bmp"));
    send(1, demo_control, {0});
    const bytes image(1500, 0x42);
    const firmware_transfer t = transfer_of(image, 0x0102, 3);
    for (size_t i = 0; i < t.registers.size(); ++i) { send(3, firmware_registers[i].addr, t.registers[i]); }
    for (const bytes& piece : t.pieces) { send(3, firmware_data, piece); }

    ASSERT_EQ(save_state(farm, folder, "card0"), "");
    EXPECT_FALSE(std::filesystem::exists(folder / "card0-model0-slot1-buffer16-incomplete.bmp"));
    const bytes bmp = contents(folder / "card0-model0-slot1-buffer16.bmp");
    ASSERT_EQ(bmp.size(), 62u);
    EXPECT_EQ(bytes(bmp.begin() + 54, bmp.end()), (bytes{0x88, 0x77, 0x66, 0x55, 0x44, 0x33, 0x22, 0x11}));
    EXPECT_EQ(contents(folder / "card0-model0-slot3-firmware1.bin"), image);
    const bytes text = contents(folder / "card0-model0-slot3.txt");
    EXPECT_NE(std::string(text.begin(), text.end())
                  .find("firmware 1  for model 0x0102, 1500 bytes, in card0-model0-slot3-firmware1.bin\n"),
              std::string::npos);
    EXPECT_EQ(summary(farm, "card0"),
              "card0: received 13 frames: 0 reads, 0 plain writes, 13 acknowledged writes, 0 refused, 0 foreign; wrote "
              "1794 bytes; sent 13 frames\n"
              "card0: buffers: 1 with a whole picture, 0 with an incomplete one; firmware images: 1 acknowledged, 0 "
              "abandoned, 0 not finished\n"
              "card0: playback: none\n"
              "card0: refused: none\n"
              "card0: injected: none\n");
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

TEST_F(Files, HoldWhatTheLoaderAndBlocksPutWhereTheUserSaysHowLarge)
{
    card_farm farm;
    std::vector<reply_frame> out;
    bytes staged(128); // two lines of 3 pixels, each padded to 64 bytes
    const bytes pixels{0x55, 1,  2,  3,  0x55, 4,  5,  6,  0x55, 7,  8,  9,
                       0x55, 11, 12, 13, 0x55, 14, 15, 16, 0x55, 17, 18, 19};
    std::copy_n(pixels.begin(), 12, staged.begin());
    std::copy_n(pixels.begin() + 12, 12, staged.begin() + 64);
    farm.request(write_frame({.code = code_write, .addr = 0xF0000, .slot = 0}, staged), 0, out);
    farm.request(write_frame({.code = code_write, .addr = 0xE0001, .slot = 0}, bytes{0, 0x20, 0, 0, 2, 0, 1}), 0, out);
    farm.write_bus(0x10, bytes{0xAB});
    const loaded_picture there{1, 0x2000, 3, 2}, elsewhere{0, 0x2000, 3, 2};
    ASSERT_EQ(save_state(farm, folder, "card1", std::array{there, elsewhere}), "");
    EXPECT_EQ(contents(folder / "card1-model0-slot0-memory1-00002000.bin"), staged);
    EXPECT_EQ(contents(folder / "card1-model0-slot0-memory1-00002000.bmp"), bmp_of(pixels, 3, 2, 32));
    EXPECT_FALSE(std::filesystem::exists(folder / "card1-model0-slot0-memory0-00002000.bmp"));
    const bytes text = contents(folder / "card1-bus.txt");
    EXPECT_NE(std::string(text.begin(), text.end()).find("00000010  ab\n"), std::string::npos);
}
