// How a demo is started: what belongs to it, and that another order is named.
#include "cardsim/playback.h"

#include <gtest/gtest.h>

using namespace rvk;

namespace {

using lines = std::vector<std::string>;

lines whole_start() { return {playback_order().begin(), playback_order().end()}; }

} // namespace

TEST(Playback, NotesWhatBelongsToIt)
{
    playback_log log;
    log.note_picture(16);
    EXPECT_TRUE(log.lines().empty()); // a picture of somebody's, not of a demo
    log.note_readiness(0xFF);
    log.note_readiness(-1);
    log.note_readiness(0);
    log.note_write(0x1000, std::vector<uint8_t>{1});
    log.note_write(0xA2, std::vector<uint8_t>{0x00, 0xCA, 0x9A, 0x3B});
    log.note_write(0x00022002, std::vector<uint8_t>{0x4C, 0x04, 0xD6, 0x0B});
    log.note_picture(16);
    EXPECT_EQ(log.lines(),
              (lines{"ready? ff", "ready? -", "ready? 00", "a2 := 00 ca 9a 3b", "22002 := 4c 04 d6 0b", "picture 16"}));
    log.note_readiness(0); // the controller was started again
    EXPECT_EQ(log.lines(), lines{"ready? 00"});
    for (int i = 0; i < 1000; ++i) { log.note_picture(17); }
    EXPECT_LT(log.lines().size(), 1000u);
}

TEST(Playback, EveryBeginningIsInOrderAndNothingElse)
{
    lines all{"ready? 00", "ready? 00"};
    EXPECT_EQ(check_playback(all), "");
    for (const std::string& line : whole_start()) {
        all.push_back(line);
        EXPECT_EQ(check_playback(all), "");
    }
    all.push_back("picture 25");
    EXPECT_EQ(check_playback(all), "");
    all.push_back("a0 := 00");
    EXPECT_EQ(check_playback(all), "'a0 := 00' behind the end");
    for (size_t i = 1; i < playback_order().size(); ++i) {
        lines swapped = whole_start();
        std::swap(swapped[i - 1], swapped[i]);
        EXPECT_EQ(check_playback(swapped),
                  '\'' + swapped[i - 1] + "' in the place of '" + playback_order()[i - 1] + '\'');
    }
}
