// Pictures from files into card memory and back, from the client's command line to the cards' memory.
#include "system/cards.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "files/bmp.h"

#include <algorithm>

using namespace rvk;

namespace {

constexpr card_id card{0x203, 6}; // not the demo's
constexpr uint32_t whole_hor = 3840, whole_ver = 2160;
constexpr size_t whole_bytes = size_t{whole_hor} * whole_ver * 4;
constexpr int idle_kb = 6'000; // more than the daemon at rest, less than any picture here adds to it
constexpr size_t whole_frames = (whole_bytes + step_bytes - 1) / step_bytes;

class Pictures : public FilesTest {
protected:
    int put(const std::string& path, uint8_t buffer, const std::string& size)
    {
        return rvkctl({"picture", "put", path, "--buffer", std::to_string(buffer), "--size", size, "--slot", "6",
                       "--model", "0x203"});
    }
    int get(const std::string& base, uint64_t at_byte, const std::string& size)
    {
        return rvkctl({"picture", "get", base, "--addr", std::to_string(at_byte / read_word), "--size", size, "--slot",
                       "6", "--model", "0x203"});
    }
    int resident_kb() const { return std::stoi("0" + proc_field(std::to_string(d->pid()), "status", "VmRSS")); }
    void expect_idle_within(milliseconds wait)
    {
        if (sanitized || is_emulated()) { return; } // memory is the sanitizer's or the emulator's
        EXPECT_TRUE(comes_true([&] { return resident_kb() < idle_kb; }, wait)) << resident_kb() << " kB";
    }
};

std::vector<uint8_t> part(const std::vector<uint8_t>& bytes, size_t from, size_t size)
{
    return {bytes.begin() + static_cast<ptrdiff_t>(from), bytes.begin() + static_cast<ptrdiff_t>(from + size)};
}

// What a read-back makes of a stretch of card memory: 1,400 of each 1,408 bytes, and no padding behind the lines.
std::vector<uint8_t> delivered(const std::vector<uint8_t>& memory, size_t line, size_t stride, size_t lines)
{
    std::vector<uint8_t> out;
    for (size_t i = 0; i < stride * lines; ++i) {
        if (i % stride < line) { out.push_back(memory[i / step_bytes * step_room + i % step_bytes]); }
    }
    return out;
}

} // namespace

TEST_F(Pictures, ArriveFromTheirFirstPixelOn)
{
    constexpr size_t pixels = size_t{70} * 11 * 4; // two whole frames and a short one
    const struct {
        const char* name;
        uint8_t buffer;
        size_t from; // of the picture in the file
    } rows[] = {{"a.bmp", 3, 54}, {"b.bmp", 18, 1078}, {"c.txt", 3, 0}, {"d.raw", 25, 0}, {"e", 26, 0}};
    uint32_t seed = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<uint8_t> bytes = content(++seed, row.from + pixels + 9);
        if (row.from > 0) { store_le32(bytes.data() + 10, static_cast<uint32_t>(row.from)); }
        EXPECT_EQ(put(file(row.name, bytes), row.buffer, "70x11"), 0);
        EXPECT_EQ(farm.picture(card, row.buffer), part(bytes, row.from, pixels));
    }
    EXPECT_EQ(put(in_folder("missing"), 3, "70x11"), 2);
    EXPECT_EQ(put(in_folder("e"), 3, "71x11"), 2) << "too short, which the client sees itself";
    EXPECT_EQ(picture_of(card, 3)->set_ups, 2u);
}

TEST_F(Pictures, AWholeOneAtFullSpeedAndItsFirstLinesBack)
{
    constexpr uint32_t lines = 200;
    ASSERT_TRUE(demo_is_over(farm)); // its frames and its memory are not to be counted here
    expect_idle_within(patience);
    const uint64_t before = farm.counts().plain_writes;
    const std::vector<uint8_t> bytes = content(1, whole_bytes);
    EXPECT_EQ(put(file("whole.raw", bytes), 3, "3840x2160"), 0);
    expect_idle_within(milliseconds{1000});
    const auto streamed = [&] { return farm.counts().plain_writes - before; };
    EXPECT_TRUE(
        comes_true([&] { return streamed() >= whole_frames; })); // the cards may be behind with what they received
    EXPECT_EQ(streamed(), whole_frames);
    EXPECT_EQ(cards.dropped(), 0u);

    EXPECT_EQ(get(in_folder("back"), buffer_start(3), "3840x200"), 0);
    EXPECT_TRUE(farm.picture(card, 3) == bytes);
    expect_idle_within(milliseconds{1000});
    const std::vector<uint8_t> top = part(bytes, 0, size_t{whole_hor} * lines * 4);
    EXPECT_TRUE(file_bytes(in_folder("back")) == top);
    EXPECT_TRUE(file_bytes(in_folder("back.bmp")) == bmp_of(top, whole_hor, lines, 32));
}

TEST_F(Pictures, OfCardMemory1400OfEach1408BytesAreGot)
{
    constexpr uint32_t hor = 100, ver = 20;
    constexpr size_t line = hor * 4, stride = 448;
    constexpr uint64_t at = 0x5000000;
    const std::vector<uint8_t> memory = content(3, stride * ver + 1408);
    farm.write_pictures(card, at, memory);
    EXPECT_EQ(get(in_folder("back"), at, "100x20"), 0);
    const std::vector<uint8_t> wanted = delivered(memory, line, stride, ver);
    EXPECT_EQ(file_bytes(in_folder("back")), wanted);
    EXPECT_EQ(file_bytes(in_folder("back.bmp")), bmp_of(wanted, hor, ver, 32));
}

// The picture is put into a buffer, and looked for where the test laid it out: at its place by the cards' rule, or one
// line behind the other.
TEST_F(Pictures, APutIsVerifiedByWhatAReadBackDelivers)
{
    constexpr uint32_t hor = 100, ver = 20;
    constexpr size_t line = hor * 4, stride = 448;
    constexpr uint64_t at = 0x5000000;
    const std::vector<uint8_t> picture = content(9, line * ver);
    const std::string path = file("picture.raw", picture);
    constexpr size_t none = SIZE_MAX;
    const struct {
        const char* name;
        bool spread;
        size_t spoilt; // offset in card memory
        int status;
        int unanswered; // the put's three acknowledgements among them
    } rows[] = {
        {"whole", true, none, 0, 0},
        {"the first step is not answered at first", true, none, 0, 5},
        {"a byte of the sixth step", true, 5 * step_room + 3, 1, 0},
        {"one line behind the other", false, none, 0, 0},
        {"a byte of the tenth line", false, 9 * stride + 17, 1, 0},
        {"a byte that is in no read-back", false, step_bytes + 4, 0, 0},
        {"a byte of the padding", false, line + 1, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<uint8_t> memory(2 * stride * ver, 0x77);
        for (size_t i = 0; i < stride * ver; ++i) {
            if (i % stride >= line) { continue; }
            const size_t place = row.spread ? i / step_bytes * step_room + i % step_bytes : i;
            memory[place] = picture[i / stride * line + i % stride];
        }
        if (row.spoilt != none) { memory[row.spoilt] ^= 0x80; }
        farm.write_pictures(card, at, memory);
        farm.set_faults({.reply_loss = row.unanswered});
        EXPECT_EQ(rvkctl({"picture", "put", path, "--buffer", "3", "--size", "100x20", "--slot", "6", "--model",
                          "0x203", "--verify", "--addr", std::to_string(at / read_word)}),
                  row.status);
    }
}

TEST_F(Pictures, AFileThatCannotBeOpenedIsABlackPicture)
{
    const std::vector<uint8_t> bytes = content(4, 16 * 16 * 4);
    conversation requester; // without the client, which looks at the file first
    for (const std::string& path : {in_folder("missing"), in_folder("")}) {
        SCOPED_TRACE(path);
        EXPECT_EQ(put(file("there.raw", bytes), 7, "16x16"), 0);
        ASSERT_EQ(farm.picture(card, 7), bytes);
        const auto answer = requester.ask({.code = command::file_write,
                                           .slot = card.slot,
                                           .model = card.model,
                                           .addr = 7,
                                           .payload = picture_payload(16, 16, path),
                                           .seq = 9});
        ASSERT_EQ(answer.size(), message_head_bytes);
        EXPECT_EQ(result_of(answer), 0);
        EXPECT_EQ(load_le16(answer.data() + message::seq), 9);
        EXPECT_EQ(farm.picture(card, 7), std::vector<uint8_t>(bytes.size()));
    }
}
