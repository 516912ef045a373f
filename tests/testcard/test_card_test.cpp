// Test pictures: any size can be made, and what a viewer shows is what was drawn.
#include "testcard/png_file.h"
#include "testcard/test_card.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <png.h>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;
} // namespace

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
