// The LVDS test as it is started at the bench. The 30 s before its reboot are not waited for: lvds_step_test has them.
#include "rvkdiag/three_links.h"

#include <algorithm>

using namespace rvk;

namespace {

constexpr card_id lvds_card{0, 1};
constexpr uint32_t lvds_register = 0x30082;
constexpr uint8_t good[] = {0x01, 0x80, 0x07, 0x38, 0x04}, bad[] = {0x01, 0x80, 0x07, 0x38, 0x05};
const std::string record = "/root/lvds_check.txt"; // the bench's own

size_t count_of(const std::string& text, const std::string& part)
{
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) { ++count; }
    return count;
}

} // namespace

using Lvds = ThreeLinks;

TEST_F(Lvds, WithoutTheFlagNothingStarts)
{
    EXPECT_EQ(run({"lvds"}).status, 2);
    EXPECT_EQ(farms[0].counts().received, 0u);
}

TEST_F(Lvds, RecordsTheWrongAnswersBeforeTheFirstGoodOne)
{
    std::filesystem::remove(record);
    farms[0].write(lvds_card, lvds_register, bad);
    const auto tool = start({"lvds", "--reboot"});
    ASSERT_TRUE(tool->shows("LVDS NOT OK 01 80 07 38 05 \n")) << tool->output();
    const auto threads = threads_of(tool->pid());
    EXPECT_TRUE(std::any_of(threads.begin(), threads.end(), [](const thread_facts& t) {
        return t.name == "rvk-lvds" && t.policy == 1 && t.priority == 88;
    }));
    farms[0].write(lvds_card, lvds_register, good);
    ASSERT_TRUE(tool->shows("LVDS OK\n")) << tool->output();
    const size_t wrong = count_of(tool->output(), "LVDS NOT OK");
    EXPECT_TRUE(becomes([&] { return file_text(record) == "cost " + std::to_string(wrong) + " times\n"; }))
        << file_text(record);
    for (const seen& s : requests(0, wrong + 1)) {
        EXPECT_EQ(s, (seen{0, lvds_card.model, lvds_card.slot, s.seq, lvds_register, 5, {}}));
    }
    EXPECT_EQ(file_text("/run/rvk-bench/reboots"), "") << "not before its 30 s";
}
