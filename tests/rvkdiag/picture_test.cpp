// The picture loader's traffic, whole and in order, for files of every kind.
#include "rvkdiag/three_links.h"

#include "base/bytes.h"

#include <algorithm>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;

struct picture {
    size_t hor, ver;
    uint8_t rgb(size_t x, size_t y, size_t part) const { return static_cast<uint8_t>(x * 3 + y * 7 + part * 85 + 1); }

    // 24 bits a pixel, bottom row first, rows padded with bytes that no picture may show.
    [[nodiscard]] bytes bmp(size_t pixels_at) const
    {
        bytes file(pixels_at, 0xEE);
        store_le32(&file[10], static_cast<uint32_t>(pixels_at));
        for (size_t y = ver; y-- > 0;) {
            for (size_t x = 0; x < hor; ++x) {
                for (size_t part = 3; part-- > 0;) { file.push_back(rgb(x, y, part)); }
            }
            while ((file.size() - pixels_at) % 4 != 0) { file.push_back(0xEE); }
        }
        return file;
    }

    // 'U', red, green, blue, top row first.
    [[nodiscard]] bytes card_pixels() const
    {
        bytes out;
        for (size_t y = 0; y < ver; ++y) {
            for (size_t x = 0; x < hor; ++x) {
                out.insert(out.end(), {0x55, rgb(x, y, 0), rgb(x, y, 1), rgb(x, y, 2)});
            }
        }
        return out;
    }
};

// What the card must see of lines that lie one behind the other in `pixels`; what is missing there is zero.
std::vector<seen> traffic(const picture& p, bytes pixels, uint32_t addr, bool memory_1)
{
    pixels.resize(p.hor * p.ver * 4);
    const size_t line = p.hor * 4, stride = (line + 63) / 64 * 64;
    bytes staged(stride * p.ver);
    for (size_t y = 0; y < p.ver; ++y) {
        std::copy_n(pixels.begin() + static_cast<ptrdiff_t>(y * line), line,
                    staged.begin() + static_cast<ptrdiff_t>(y * stride));
    }
    std::vector<seen> out;
    const auto write = [&out](uint32_t to, bytes data) {
        const auto len = static_cast<uint16_t>(data.size());
        out.push_back({1, 0, 0, 0, to, len, std::move(data)});
    };
    for (size_t piece = 0; piece < staged.size(); piece += 15'360) {
        const size_t end = std::min(piece + 15'360, staged.size());
        for (size_t at = piece; at < end; at += 1400) {
            write(static_cast<uint32_t>((memory_1 ? 0xF0000 : 0xB0000) + at - piece),
                  {staged.begin() + static_cast<ptrdiff_t>(at),
                   staged.begin() + static_cast<ptrdiff_t>(std::min(at + 1400, end))});
        }
        bytes command(7, 1);
        const size_t bursts = (end - piece + 63) / 64;
        store_le32(command.data(), addr);
        store_le16(&command[4], static_cast<uint16_t>(bursts));
        write(memory_1 ? 0xE0001 : 0xA0001, command);
        addr += static_cast<uint32_t>(bursts * 8);
    }
    return out;
}

const picture small{3, 2}, odd{100, 5}, tall{37, 400}, full{1920, 1080};

struct picture_case {
    const char* name;
    picture shows;
    const char* file;
    bytes content, pixels;
    const char* fpga_sel;
    size_t link;
    bool memory_1;
};

bytes shortened(bytes whole, size_t by)
{
    whole.resize(whole.size() - by);
    return whole;
}

// The first rows of a file are the last of its picture: what is missing at its end is missing at the top.
bytes without_first(bytes pixels, size_t count)
{
    std::fill_n(pixels.begin(), count * 4, uint8_t{0});
    return pixels;
}

std::vector<picture_case> picture_cases()
{
    bytes far_offset = small.bmp(54);
    store_le32(&far_offset[10], 0xFFFFFFF0);
    return {
        {"3 pixels wide: the padding is skipped", small, "a.bmp", small.bmp(54), small.card_pixels(), "x10", 1, false},
        {"pixels at an odd place", small, "a.bmp", small.bmp(61), small.card_pixels(), "xA1", 1, true},
        {"line of 400 bytes, stride of 448", odd, "a.txt", odd.card_pixels(), odd.card_pixels(), "xb0", 2, false},
        {"several pieces, the last one shorter", tall, "a.bmp", tall.bmp(54), tall.card_pixels(), "xaB", 1, false},
        {"BMP in capitals is no bitmap", small, "a.BMP", small.bmp(54), bytes(), "xBb", 2, false},
        {"a file too short by a pixel and its padding", small, "a.bmp", shortened(small.bmp(54), 4),
         [] {
             bytes pixels = small.card_pixels();
             std::fill_n(pixels.begin() + 8, 4, uint8_t{0});
             return pixels;
         }(),
         "x0a", 2, true},
        {"a bitmap of its last row only", small, "a.bmp", shortened(small.bmp(54), 12),
         without_first(small.card_pixels(), 3), "x00", 2, false},
        {"a bitmap without pixels", small, "a.bmp", far_offset, bytes(), "x11", 1, true},
        {"a bitmap too short for its own head", small, "a.bmp", bytes(13, 0), bytes(), "x10", 1, false},
        {"an empty file", small, "a.txt", bytes(), bytes(), "x10", 1, false},
        {"card pixels, too few", odd, "a.txt", shortened(odd.card_pixels(), 700), shortened(odd.card_pixels(), 700),
         "x10", 1, false},
        {"more card pixels than asked for", small, "a.txt", tall.card_pixels(), tall.card_pixels(), "x10", 1, false},
        {"1920 x 1080", full, "a.bmp", full.bmp(54), full.card_pixels(), "x01", 2, true},
    };
}

} // namespace

using Picture = ThreeLinks;

TEST_F(Picture, ArrivesWholeAndInOrder)
{
    for (const picture_case& c : picture_cases()) {
        SCOPED_TRACE(c.name);
        forget();
        write_bytes(folder / c.file, c.content);
        const bool as_it_stands = c.pixels.empty() && std::string_view(c.file) == "a.BMP";
        const auto expected = traffic(c.shows, as_it_stands ? c.content : c.pixels, 0x12340, c.memory_1);
        const said ran = run({"picture", "0x12340", std::to_string(c.shows.hor) + "x" + std::to_string(c.shows.ver),
                              folder / c.file, "xe", c.fpga_sel});
        EXPECT_EQ(ran.status, 0) << ran.err;
        EXPECT_NE(ran.out.find("its frames are not acknowledged"), std::string::npos) << ran.out;
        EXPECT_EQ(ran.err.find("\nfile format error\n") != std::string::npos, as_it_stands) << ran.err;
        const auto got = requests(c.link, expected.size());
        ASSERT_EQ(got.size(), expected.size());
        EXPECT_TRUE(got == expected) << "first difference at frame "
                                     << std::mismatch(got.begin(), got.end(), expected.begin()).first - got.begin();
        EXPECT_EQ(requests(3 - c.link, 0).size(), 0u);
    }
    EXPECT_EQ(requests(2, 0).size(), 540u * 12) << "the last case, in pieces of eleven frames and a command";
}
