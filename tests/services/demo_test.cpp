// The demo at start: the whole sequence, with one picture file that is there, and the wait for the FPGA.
#include "cardsim/playback.h"
#include "demo/demo.h"
#include "services/jobs.h"
#include "support/log_capture.h"

using namespace rvk;

namespace {

using Demo = FileServiceTest;

TEST_F(Demo, LoadsNinePicturesAndPlaysFromTheFirstOn)
{
    const std::vector<uint8_t> second = pattern(0x42, 1'000'000);
    std::filesystem::create_directories("/usr/kup/etc/demo");
    write_bytes("/usr/kup/etc/demo/demo_2", second);
    farm.record_history(0); // 213,000 frames
    const uint64_t start = now_us();
    WriteDemoPictureData(0);
    EXPECT_GE(now_us() - start, 5'500'000u); // every pause in full
    EXPECT_EQ(check_playback(farm.playback()), "");
    EXPECT_EQ(logged("vpu fpga init status = 0x0"), 5u);
    for (uint8_t buffer = 16; buffer <= 24; ++buffer) {
        SCOPED_TRACE(static_cast<int>(buffer));
        std::vector<uint8_t> wanted(demo_picture_bytes);
        if (buffer == 17) { std::copy(second.begin(), second.end(), wanted.begin()); }
        EXPECT_TRUE(farm.picture({0, 1}, buffer) == wanted);
    }
}

TEST_F(Demo, AnFpgaThatIsNeverReadyIsAskedTwentyTimesAtOnce)
{
    farm.record_history(1000);
    farm.set_behaviour({.readiness = 0xFF, .readiness_bytes = 300});
    const uint64_t start = now_us();
    CheckFpgaReady();
    EXPECT_LT(now_us() - start, 3'000'000u);
    EXPECT_EQ(frames_to(0x00F00009).size(), 20u);
}

TEST_F(Demo, TheIntervalIsClampedToItsRegister)
{
    const std::pair<int, std::vector<uint8_t>> rows[] = {{5, {0x00, 0xCA, 0x9A, 0x3B}}, // 1,000,000,000
                                                         {1, {0x00, 0xC2, 0xEB, 0x0B}}, // 200,000,000
                                                         {-1, {0, 0, 0, 0}},
                                                         {100, {0xFF, 0xFF, 0xFF, 0xFF}}};
    for (const auto& [interval, bytes] : rows) {
        DemoPlayIntervalSet(0, interval);
        EXPECT_EQ(farm.read({0, 1}, 0xA2, 4), bytes) << interval;
    }
}

} // namespace
