// Pictures from files into card memory and back, from the client's command line to the cards' memory.
#include "system/cards.h"

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
        if (sanitized) { return; } // the sanitizer keeps what is freed
        EXPECT_TRUE(comes_true([&] { return resident_kb() < idle_kb; }, wait)) << resident_kb() << " kB";
    }
};

std::vector<uint8_t> part(const std::vector<uint8_t>& bytes, size_t from, size_t size)
{
    return {bytes.begin() + static_cast<ptrdiff_t>(from), bytes.begin() + static_cast<ptrdiff_t>(from + size)};
}

} // namespace

TEST_F(Pictures, AWholeOneAtFullSpeedAndItsFirstLinesBack)
{
    constexpr uint32_t lines = 200;
    ASSERT_TRUE(demo_is_over(farm)); // its frames and its memory are not to be counted here
    expect_idle_within(patience);
    const uint64_t before = farm.counts().plain_writes;
    const std::vector<uint8_t> bytes = content(1, whole_bytes);
    EXPECT_EQ(put(file("whole.raw", bytes), 3, "3840x2160"), 0);
    expect_idle_within(milliseconds{1000});
    EXPECT_EQ(farm.counts().plain_writes - before, whole_frames);
    EXPECT_EQ(cards.dropped(), 0u);
    EXPECT_TRUE(farm.picture(card, 3) == bytes);

    EXPECT_EQ(get(in_folder("back"), buffer_start(3), "3840x200"), 0);
    expect_idle_within(milliseconds{1000});
    const std::vector<uint8_t> top = part(bytes, 0, size_t{whole_hor} * lines * 4);
    EXPECT_TRUE(file_bytes(in_folder("back")) == top);
    EXPECT_TRUE(file_bytes(in_folder("back.bmp")) == bmp_of(top, whole_hor, lines, 32));
}
