// How long the demo shows each picture; the whole sequence is seen from outside, with the real daemon.
#include "demo/demo.h"
#include "services/jobs.h"

using namespace rvk;

namespace {

using Demo = FileServiceTest;

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
