// See the header. One attempt is a function, so that a test can step it and the thread's loop has nothing else in it.
// Attempts without an answer leave no trace: at a boot the card may take long to be there. The two shell commands run
// through the platform, whose results there is nobody to tell.
#include "main/lvds_test.h"

#include "base/pause.h"
#include "base/rt_thread.h"
#include "eth_raw/frame.h"
#include "eth_raw/registers.h"
#include "main/log.h"
#include "platform/platform.h"
#include "raw_msg/exchange.h"

#include <array>

namespace rvk {
namespace {

constexpr int lvds_priority = 88;                             // ours, SCHED_FIFO
constexpr uint64_t poll_ms = 2000, before_reboot_ms = 30'000; // ours
constexpr uint32_t lvds_ticks = 3;                            // ours

void record_and_reboot(int failures)
{
    log_print(LOG_HERE, "LVDS OK\n");
    char line[256];
    snprintf(line, sizeof line, "echo cost %d times >> /root/lvds_check.txt", failures);
    static_cast<void>(my_system(line));
    pause_ms(before_reboot_ms);
    static_cast<void>(my_system("reboot -f"));
}

} // namespace

int32_t LvdsTestTaskCreate(int argument)
{
    if (start_thread("rvk-lvds", lvds_priority, LvdsTest, argument, nullptr) == 0) { return 0; }
    log_print(LOG_HERE, "failed to create thread \n");
    return -1;
}

void LvdsTest(int)
{
    int failures = 0;
    for (;;) { lvds_step(&failures); }
}

void lvds_step(int* failures)
{
    pause_ms(poll_ms);
    std::array<uint8_t, 5> status{};
    uint32_t received = 0;
    if (RawSockSendMsgWithReadWait(0, 0, lvds_slot, lvds_register, code_read, status.size(), status, &received,
                                   lvds_ticks) != 0) {
        return; // neither counted nor logged
    }
    if (status == lvds_good) { return record_and_reboot(*failures); }
    ++*failures;
    log_print(LOG_HERE, "LVDS NOT OK %02x %02x %02x %02x %02x \n", status[0], status[1], status[2], status[3],
              status[4]);
}

} // namespace rvk
