// The LVDS test step by step. Its commands and its long pauses are recorded in place of being carried out.
#include "main/lvds_test.h"

#include "base/mutex.h"
#include "base/pause.h"
#include "link/bench_link.h"
#include "platform/platform.h"
#include "support/log_capture.h"

#include <ctime>
#include <utility>

using namespace rvk;

namespace {

constexpr uint32_t lvds_register = 0x30082;
constexpr uint64_t long_us = 1'000'000; // what waits for something else is shorter

mutex events_mtx;
std::vector<std::string> events RVK_GUARDED_BY(events_mtx);

void note(std::string event)
{
    const scoped_lock hold(events_mtx);
    events.push_back(std::move(event));
}

std::vector<std::string> take_events()
{
    const scoped_lock hold(events_mtx);
    return std::exchange(events, {});
}

std::string lvds_lines()
{
    std::string lines;
    for (const log_entry& entry : take_log()) {
        if (entry.function == "lvds_step" || entry.function == "record_and_reboot") { lines += entry.text; }
    }
    return lines;
}

class Lvds : public LinkTest {
protected:
    void status(std::vector<uint8_t> bytes) { farm.write(near_card, lvds_register, bytes); }
    void step()
    {
        static_cast<void>(take_events());
        static_cast<void>(take_log());
        lvds_step(&failures);
    }
    int failures = 0;
};

} // namespace

int my_system(const char* line)
{
    note(line);
    return -1; // of no consequence
}

// In place of base's: every other pause of this program stays what it is.
void rvk::pause_us(uint64_t us)
{
    if (us >= long_us) { return note("pause of " + std::to_string(us / 1000) + " ms"); }
    timespec left{0, static_cast<long>(us * 1000)};
    while (nanosleep(&left, &left) != 0) {}
}

TEST_F(Lvds, WrongAnswersAreCountedAndAGoodOneEndsIt)
{
    const std::vector<std::string> only_its_pause{"pause of 2000 ms"};
    for (uint8_t i = 1; i <= 3; ++i) {
        status({0x01, 0x80, 0x07, 0x38, static_cast<uint8_t>(0x04 + i)});
        step();
        EXPECT_EQ(failures, i);
        EXPECT_EQ(take_events(), only_its_pause);
        EXPECT_EQ(lvds_lines(), "LVDS NOT OK 01 80 07 38 0" + std::to_string(4 + i) + " \n");
    }
    farm.set_faults({.loss = 1.0});
    step();
    farm.set_faults({.wrong_read = 1});
    step();
    EXPECT_EQ(failures, 3) << "no answer, or a refusal, is no wrong answer";
    EXPECT_EQ(lvds_lines(), "");
    status({0x01, 0x80, 0x07, 0x38, 0x04});
    step();
    EXPECT_EQ(take_events(), (std::vector<std::string>{"pause of 2000 ms", "echo cost 3 times >> /root/lvds_check.txt",
                                                       "pause of 30000 ms", "reboot -f"}));
    EXPECT_EQ(lvds_lines(), "LVDS OK\n");
    EXPECT_EQ(frames_to(lvds_register).size(), 6u);
}

TEST_F(Lvds, AGoodFirstAnswerCostNothing)
{
    status({0x01, 0x80, 0x07, 0x38, 0x04});
    step();
    EXPECT_EQ(take_events()[1], "echo cost 0 times >> /root/lvds_check.txt");
}
