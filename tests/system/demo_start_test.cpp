// The demo that the daemon plays when it starts: nine pictures, playback from the first on, and commands served
// meanwhile.
#include "system/cards.h"

#include <algorithm>
#include <filesystem>
#include <map>
#include <string>

using namespace rvk;

namespace {

constexpr card_id fpga{0, 1};
constexpr uint8_t first_buffer = 16, last_buffer = 24;
constexpr size_t picture_bytes = size_t{3840} * 2160 * 4;
constexpr char demo_folder[] = "/usr/kup/etc/demo";

class DemoStart : public FilesTest {
protected:
    // The buffer whose picture is on its way to the card; 0: none.
    int coming() const
    {
        for (const picture_record& record : farm.pictures(fpga)) {
            if (!record.whole) { return record.buffer; }
        }
        return 0;
    }
    // Greets the daemon again and again until the demo is over. Result: how often it answered while one and the same
    // picture was on its way.
    int greetings_meanwhile()
    {
        conversation requester;
        int count = 0;
        EXPECT_TRUE(comes_true(
            [&] {
                const int before = coming();
                if (requester.is_greeted() && before != 0 && coming() == before) { ++count; }
                const auto last = picture_of(fpga, last_buffer);
                return last && last->whole;
            },
            demo_patience));
        return count;
    }
    ptrdiff_t readiness_reads(const std::string& answered) const
    {
        return std::ranges::count(farm.playback(), answered);
    }

    // The whole traffic in its order, and each picture as its file has it: black behind the file's end.
    void expect_demo(const std::map<uint8_t, std::vector<uint8_t>>& files)
    {
        const std::vector<std::string> lines = farm.playback();
        EXPECT_EQ(check_playback(lines), "");
        const auto readiness = std::ranges::count_if(lines, [](const auto& l) { return l.starts_with("ready?"); });
        EXPECT_EQ(lines.size() - static_cast<size_t>(readiness), playback_order().size());
        for (uint8_t buffer = first_buffer; buffer <= last_buffer; ++buffer) {
            SCOPED_TRACE(static_cast<int>(buffer));
            std::vector<uint8_t> wanted(picture_bytes);
            const auto file = files.find(buffer);
            if (file != files.end()) { std::ranges::copy(file->second, wanted.begin()); }
            EXPECT_TRUE(farm.picture(fpga, buffer) == wanted);
            EXPECT_EQ(picture_of(fpga, buffer)->set_ups, 1u);
        }
    }
};

// Some of the files are there before the daemon starts.
class DemoFiles : public DemoStart {
protected:
    void SetUp() override
    {
        std::filesystem::create_directories(demo_folder);
        for (const unsigned number : {1u, 2u, 5u, 9u}) {
            const auto buffer = static_cast<uint8_t>(first_buffer + number - 1);
            files[buffer] = content(number, size_t{number} * 1'000'003);
            write_file(demo_folder + ("/demo_" + std::to_string(number)), files[buffer]);
        }
        farm.set_behaviour({.readiness = 0xFF});
        DemoStart::SetUp();
    }
    void TearDown() override
    {
        DemoStart::TearDown();
        std::filesystem::remove_all(demo_folder);
    }

    std::map<uint8_t, std::vector<uint8_t>> files; // by buffer
};

} // namespace

TEST_F(DemoStart, WithoutFilesNineBlackPicturesAreShown)
{
    EXPECT_GT(greetings_meanwhile(), 0);
    EXPECT_EQ(readiness_reads("ready? 00"), 5);
    expect_demo({});
}

TEST_F(DemoFiles, AreShownByTheirNumbersThoughTheFpgaIsNeverReady)
{
    EXPECT_GT(greetings_meanwhile(), 0);
    EXPECT_EQ(readiness_reads("ready? ff"), 20);
    expect_demo(files);
}
