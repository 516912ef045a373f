// What a sent frame costs in the process, counted and not timed: callgrind runs this program once more for each side
// and counts the instructions inside one function.
#include "cables.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "harness.h"
#include "mem/mem.h"
#include "processes.h"
#include "raw_msg/send.h"
#include "rows.h"

#include <cstdlib>
#include <string>
#include <vector>

namespace rvk::bench {

constexpr size_t frames_counted = 1000;

// Visible, and never inlined: callgrind finds it by its name.
__attribute__((noinline)) void bare_sends(const bare_link& link, const std::vector<frame_bytes>& frames)
{
    for (const frame_bytes& frame : frames) { link.send(frame); }
}

namespace {

double instructions_per_frame(const std::string& which, const std::string& function)
{
    const std::string text =
        run_program({"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--collect-atstart=no",
                     "--toggle-collect=" + function, own_folder() + "/rvk-bench", "--under-callgrind", which});
    constexpr char label[] = "Collected : ";
    const size_t at = text.find(label);
    if (at == std::string::npos) { fail("callgrind counted nothing (apt-get install valgrind):\n" + text); }
    return strtod(text.c_str() + at + sizeof label - 1, nullptr) / static_cast<double>(frames_counted);
}

} // namespace

void count_instructions_of(const char* which)
{
    if (RawSockMsgInit(0) != 0) { fail("eth0 cannot be opened"); }
    mem_init();
    if (std::string(which) == "ours") {
        const std::vector<uint8_t> data(frames_counted * frame_data_max, 0x5A);
        static_cast<void>(RawSockSendMsg(0, model, slot, addr, code_write, data)); // what failed shows in the count
    } else {
        const std::vector<frame_bytes> frames(frames_counted, ready_made(code_write, addr, 0, frame_data_max));
        bare_sends(bare_link(g_eth_init[0].sock_fd), frames);
    }
}

void instructions_row(const settings&)
{
    const pair_of_medians found{instructions_per_frame("ours", "rvk::RawSockSendMsg(*"),
                                instructions_per_frame("bare", "rvk::bench::bare_sends(*")};
    print_bound("instructions in the process per 1,400-byte frame sent", "`sendto` of ready-made frames",
                "instructions", found, 1000);
}

} // namespace rvk::bench
