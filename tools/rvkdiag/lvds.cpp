// Runs the LVDS test on link 0 until it reboots this machine, or until somebody ends it.
#include "rvkdiag/commands.h"

#include "base/clock.h"
#include "command/values.h"
#include "eth_raw/frame.h"
#include "main/diagnosis.h"
#include "rvkdiag/direct_link.h"

namespace rvk::diag {

void run_lvds()
{
    open_with_threads(0, request_bytes_max);
    static_cast<void>(tool::write_out(
        "asking " + name_of_link(0) +
        " for its LVDS status every 2 s, one that does not answer without a word; a good status is "
        "recorded in /root/lvds_check.txt, and 30 s later this machine reboots; Ctrl-C ends the test\n"));
    if (LvdsTestTaskCreate(0) != 0) {
        throw tool::failure{tool::problem::no_permission,
                            "the test's real-time thread cannot be created: it takes root, or CAP_SYS_NICE"};
    }
    for (;;) { pause_ms(1000); }
}

} // namespace rvk::diag
