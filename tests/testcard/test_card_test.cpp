// Test pictures: that each can be told from the others, and that what a viewer shows is what was drawn.
#include "testcard/digits.h"
#include "testcard/png_file.h"
#include "testcard/test_card.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <png.h>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;
constexpr uint32_t wide = 800;

colour at(const bytes& pixels, uint32_t hor, uint32_t x, uint32_t y)
{
    const uint8_t* p = &pixels[(size_t{y} * hor + x) * 4];
    return {p[1], p[2], p[3]};
}

// Reads the number off a card of 800 x 360: its field is in the middle, a dot has 20 pixels.
std::string number_on(const bytes& pixels, uint32_t digits)
{
    std::string text;
    const uint32_t left = (wide - (digits * 6 + 1) * 20) / 2 + 20, top = (360 - 9 * 20) / 2 + 20;
    for (uint32_t d = 0; d < digits; ++d) {
        for (unsigned digit = 0; digit < 10; ++digit) {
            bool same = true;
            for (uint32_t dot = 0; dot < digit_width * digit_height; ++dot) {
                const uint32_t column = dot % digit_width, line = dot / digit_width;
                const colour seen = at(pixels, wide, left + (d * 6 + column) * 20 + 10, top + line * 20 + 10);
                same = same && (seen == ink) == has_dot(digit, column, line);
            }
            if (same) { text += static_cast<char>('0' + digit); }
        }
    }
    return text;
}

} // namespace

TEST(TestCard, ShowsItsNumberOnItsBars)
{
    for (const uint32_t number : {0u, 9u, 1234u, 5678u}) {
        SCOPED_TRACE(number);
        const bytes pixels = test_card(number, wide, 360);
        ASSERT_EQ(pixels.size(), wide * 360 * 4);
        EXPECT_EQ(pixels[0], 0x55);
        for (uint32_t bar = 0; bar < 8; ++bar) {
            EXPECT_EQ(at(pixels, wide, bar * 100 + 2, 2), bars[bar]);
            EXPECT_EQ(at(pixels, wide, bar * 100 + 97, 357), bars[bar]);
            EXPECT_EQ(at(pixels, wide, bar * 100 + 50, 0), ink); // the frame around all
            EXPECT_EQ(at(pixels, wide, bar * 100 + 50, 359), ink);
        }
        EXPECT_EQ(number_on(pixels, static_cast<uint32_t>(std::to_string(number).size())), std::to_string(number));
    }
}

TEST(TestCard, IsMadeInAnySize)
{
    for (const auto& [hor, ver] : {std::pair{1u, 1u}, {1u, 1000u}, {1000u, 1u}, {7u, 9u}, {20u, 18u}, {65535u, 2u}}) {
        EXPECT_EQ(test_card(8888, hor, ver).size(), size_t{hor} * ver * 4) << hor << " x " << ver;
    }
}

TEST(TestCard, APngHoldsWhatWasDrawn)
{
    std::string folder = testing::TempDir() + "testcard-XXXXXX";
    ASSERT_NE(mkdtemp(folder.data()), nullptr);
    const std::string path = folder + "/card.png";
    const bytes pixels = test_card(42, 101, 60);
    ASSERT_EQ(write_png(path, pixels, 101, 60), "");
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    ASSERT_NE(png_image_begin_read_from_file(&image, path.c_str()), 0) << image.message;
    image.format = PNG_FORMAT_RGB;
    ASSERT_EQ(PNG_IMAGE_SIZE(image), pixels.size() / 4 * 3);
    bytes rgb(PNG_IMAGE_SIZE(image));
    ASSERT_NE(png_image_finish_read(&image, nullptr, rgb.data(), 0, nullptr), 0) << image.message;
    for (size_t i = 0; i < pixels.size() / 4; ++i) {
        ASSERT_TRUE(std::equal(&rgb[i * 3], &rgb[i * 3] + 3, &pixels[i * 4 + 1])) << "pixel " << i;
    }
    EXPECT_NE(write_png(folder + "/no folder/card.png", pixels, 101, 60).find("no folder/card.png: cannot be written"),
              std::string::npos);
    std::filesystem::remove_all(folder);
}
