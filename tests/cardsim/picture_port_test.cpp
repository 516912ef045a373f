// Pictures into card memory and back out: what a card takes, what it refuses, and that a put picture is the one got.
#include "base/bytes.h"
#include "cardsim/picture_port.h"
#include "cardsim/read_back.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;

bytes set_up(uint16_t hor, uint16_t ver, uint8_t buffer, uint8_t command = 0)
{
    bytes block{command, 0, 0, 0, 0, buffer};
    store_le16(&block[1], hor);
    store_le16(&block[3], ver);
    return block;
}

// One way in, with the card behind it.
struct rig {
    explicit rig(bool demo = true) : port(demo) {}
    mistake control(const bytes& b) { return port.control(b, records); }
    mistake data(std::span<const uint8_t> b) { return port.data(b, records, memory); }
    mistake stream(const bytes& picture)
    {
        mistake first = mistake::none;
        for (size_t at = 0; at < picture.size(); at += step_bytes) {
            const mistake m = data(std::span(picture).subspan(at, std::min(step_bytes, picture.size() - at)));
            if (first == mistake::none) { first = m; }
        }
        return first;
    }
    picture_port port;
    picture_records records;
    picture_memory memory;
};

struct step {
    enum { control, data } kind;
    bytes what; // data: one byte, so often as `count` says
    size_t count = 0;
};
step ctl(bytes b) { return {step::control, std::move(b)}; }
step dat(size_t count) { return {step::data, {}, count}; }

const bytes start{1}, end{0};

struct order_case {
    const char* name;
    bool demo;
    std::vector<step> steps;
    std::vector<mistake> said; // one per step
    bool whole;                // buffer 16, at the end
};

using enum mistake;

// Pictures of 100 x 8 pixels, 3,200 bytes: frames of 1,400, 1,400 and 400.
const order_case order_cases[] = {
    {"a good picture",
     true,
     {ctl(set_up(100, 8, 16)), ctl(start), dat(1400), dat(1400), dat(400), ctl(end)},
     {none, none, none, none, none, none},
     true},
    {"a picture of no width sends no data",
     true,
     {ctl(set_up(0, 8, 16)), ctl(start), ctl(end)},
     {none, none, none},
     true},
    {"a picture of no height", true, {ctl(set_up(100, 0, 16)), ctl(start), ctl(end)}, {none, none, none}, true},
    {"start without a set-up", true, {ctl(start)}, {picture_start_order}, false},
    {"a second start", true, {ctl(set_up(1, 1, 16)), ctl(start), ctl(start)}, {none, none, picture_start_order}, false},
    {"a start behind the end needs a set-up of its own",
     true,
     {ctl(set_up(1, 1, 16)), ctl(start), dat(4), ctl(end), ctl(start)},
     {none, none, none, none, picture_start_order},
     true},
    {"end without a start", true, {ctl(set_up(1, 1, 16)), ctl(end)}, {none, picture_end_order}, false},
    {"data before the set-up", true, {dat(4)}, {picture_data_order}, false},
    {"data before the start", true, {ctl(set_up(1, 1, 16)), dat(4)}, {none, picture_data_order}, false},
    {"data behind the end",
     true,
     {ctl(set_up(1, 1, 16)), ctl(start), dat(4), ctl(end), dat(4)},
     {none, none, none, none, picture_data_order},
     true},
    {"a frame too few",
     true,
     {ctl(set_up(100, 8, 16)), ctl(start), dat(1400), dat(400), ctl(end)},
     {none, none, none, none, picture_data_missing},
     false},
    {"a byte too few",
     true,
     {ctl(set_up(100, 8, 16)), ctl(start), dat(1400), dat(1400), dat(399), ctl(end)},
     {none, none, none, none, none, picture_data_missing},
     false},
    {"a byte too many, which spoils the picture",
     true,
     {ctl(set_up(100, 8, 16)), ctl(start), dat(1400), dat(1400), dat(400), dat(1), ctl(end)},
     {none, none, none, none, none, picture_data_excess, picture_data_excess},
     false},
    {"a frame that ends beyond the picture",
     true,
     {ctl(set_up(100, 8, 16)), ctl(start), dat(1400), dat(1400), dat(401), ctl(end)},
     {none, none, none, none, picture_data_excess, picture_data_excess},
     false},
    {"a short frame that is not the last",
     true,
     {ctl(set_up(100, 8, 16)), ctl(start), dat(400), dat(1400), dat(1400), ctl(end)},
     {none, none, none, picture_frame_size, picture_frame_size, picture_frame_size},
     false},
    {"a line less announced than comes",
     true,
     {ctl(set_up(100, 7, 16)), ctl(start), dat(1400), dat(1400), dat(400), ctl(end)},
     {none, none, none, none, picture_data_excess, picture_data_excess},
     false},
    {"a picture left standing: the next one is taken",
     true,
     {ctl(set_up(100, 8, 17)), ctl(start), dat(1400), ctl(set_up(1, 1, 16)), ctl(start), dat(4), ctl(end)},
     {none, none, none, picture_not_ended, none, none, none},
     true},
    {"a set-up again before the start counts anew",
     true,
     {ctl(set_up(100, 8, 16)), ctl(set_up(1, 1, 16)), ctl(start), dat(4), ctl(end)},
     {none, none, none, none, none},
     true},
    {"control writes of other lengths",
     true,
     {ctl({}), ctl({0, 1}), ctl({0, 1, 0, 1, 0}), ctl({0, 1, 0, 1, 0, 16, 0})},
     {picture_control_length, picture_control_length, picture_control_length, picture_control_length},
     false},
    {"other commands", true, {ctl(set_up(1, 1, 16, 1)), ctl({2})}, {picture_command, picture_command}, false},
    {"through the demo's register other buffers than its own",
     true,
     {ctl(set_up(1, 1, 15)), ctl(set_up(1, 1, 26)), ctl(set_up(1, 1, 25))},
     {picture_buffer_number, picture_buffer_number, none},
     false},
    {"through the other register any number, since only its low byte comes",
     false,
     {ctl(set_up(1, 1, 15)), ctl(set_up(1, 1, 26)), ctl(set_up(1, 1, 255)), ctl(set_up(1, 1, 16)), ctl(start), dat(4),
      ctl(end)},
     {none, none, none, none, none, none, none},
     true},
    {"as large as a buffer's room, and larger",
     true,
     {ctl(set_up(7680, 4320, 16)), ctl(set_up(16384, 2048, 16)), ctl(set_up(65535, 65535, 16))},
     {none, picture_too_large, picture_too_large},
     false},
};

} // namespace

TEST(PicturePort, NamesWhatIsWrong)
{
    for (const order_case& c : order_cases) {
        SCOPED_TRACE(c.name);
        rig r(c.demo);
        ASSERT_EQ(c.steps.size(), c.said.size());
        for (size_t i = 0; i < c.steps.size(); ++i) {
            const step& s = c.steps[i];
            const mistake m = s.kind == step::control ? r.control(s.what) : r.data(bytes(s.count, 0x5A));
            EXPECT_STREQ(name_of(m), name_of(c.said[i])) << "step " << i;
        }
        EXPECT_EQ(r.records[16].whole, c.whole);
    }
}

// What the controller does when it reads a picture back, written down anew.
bytes read_back(const picture_memory& memory, uint32_t word, size_t hor, size_t ver)
{
    const size_t line = hor * 4, stride = (line + 63) / 64 * 64;
    bytes work(stride * ver), picture;
    read_back_port port;
    for (size_t at = 0; at < work.size();) {
        const size_t n = std::min<size_t>(1400, work.size() - at), units = (n + 63) / 64;
        bytes command(7);
        store_le32(command.data(), word);
        store_le16(&command[4], static_cast<uint16_t>(units));
        EXPECT_EQ(port.command(command), none);
        EXPECT_EQ(port.start(bytes{1}), none);
        EXPECT_EQ(port.status(), none);
        EXPECT_EQ(port.window(memory, std::span(work).subspan(at, n)), none);
        word += static_cast<uint32_t>(8 * units);
        at += n;
    }
    for (size_t y = 0; y < ver; ++y) {
        const auto from = work.begin() + static_cast<std::ptrdiff_t>(y * stride);
        picture.insert(picture.end(), from, from + static_cast<std::ptrdiff_t>(line));
    }
    return picture;
}

// Widths whose lines need padding and whose lines do not; sizes around a step's, and of many steps.
TEST(PicturePort, APictureThatWasPutIsTheOneGot)
{
    const uint16_t sizes[][2]{{1, 1},   {2, 2},     {16, 1},   {100, 2},   {350, 1},  {351, 1}, {352, 3},
                              {16, 22}, {1000, 77}, {17, 333}, {3840, 10}, {1920, 9}, {5, 500}};
    std::mt19937 random(1);
    uint8_t buffer = 16;
    rig r;
    for (const auto& [hor, ver] : sizes) {
        SCOPED_TRACE(std::to_string(hor) + " x " + std::to_string(ver));
        bytes picture(size_t{hor} * ver * 4);
        for (uint8_t& b : picture) { b = static_cast<uint8_t>(random()); }
        ASSERT_EQ(r.control(set_up(hor, ver, buffer)), none);
        ASSERT_EQ(r.control(start), none);
        ASSERT_EQ(r.stream(picture), none);
        ASSERT_EQ(r.control(end), none);
        const picture_record& record = r.records[buffer];
        EXPECT_TRUE(record.whole);
        EXPECT_EQ(record.received, picture.size());
        EXPECT_TRUE(picture_from(r.memory, record) == picture);
        EXPECT_TRUE(read_back(r.memory, uint32_t{buffer} * 0x1000000, hor, ver) == picture);
        buffer = buffer == 25 ? 16 : static_cast<uint8_t>(buffer + 1);
    }
}

TEST(PicturePort, LinesArePaddedAndStepsAreApart)
{
    rig r(false);
    ASSERT_EQ(r.control(set_up(100, 8, 2)), none);
    ASSERT_EQ(r.control(start), none);
    bytes picture(3200);
    for (size_t i = 0; i < picture.size(); ++i) { picture[i] = static_cast<uint8_t>(1 + i / 400); }
    ASSERT_EQ(r.stream(picture), none);
    bytes memory(3 * 1408);
    r.memory.read(uint64_t{2} << 27, memory);
    // Padded lines of 448 bytes; the first step ends in the fourth, 56 bytes into it.
    EXPECT_EQ(memory[0], 1);
    EXPECT_EQ(memory[399], 1);
    EXPECT_EQ(memory[400], 0);
    EXPECT_EQ(memory[448], 2);
    EXPECT_EQ(memory[3 * 448], 4);
    EXPECT_EQ(memory[1399], 4);
    EXPECT_EQ(memory[1400], 0);
    EXPECT_EQ(memory[1408], 4);
    EXPECT_EQ(memory[1408 + 399 - 56], 4);
    EXPECT_EQ(memory[1408 + 400 - 56], 0);
}
