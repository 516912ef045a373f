#include "main/status.h"

#include "ap_msg/message.h"
#include "base/counters.h"
#include "base/elapsed.h"
#include "base/fd.h"
#include "base/pause.h"
#include "base/rt_thread.h"
#include "base/status_place.h"
#include "eth_raw/link.h"
#include "main/log.h"
#include "main/status_text.h"
#include "platform/platform.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

namespace rvk {
namespace {

constexpr uint64_t period_ms = 1000;                   // ours
constexpr int start_ms = 500;                          // ours: until the command thread has its endpoint
constexpr mode_t file_mode = 0644, folder_mode = 0755; // the umask is 0
constexpr size_t path_bytes = 4096;                    // the system's limit

// process  0 for the file itself; of two daemons in one folder none writes into the other's half-written file
bool path_of(char (&out)[path_bytes], const char* name, int process)
{
    const int length = process == 0 ? snprintf(out, sizeof out, "%s/%s", status_folder(), name)
                                    : snprintf(out, sizeof out, "%s/%s.%d", status_folder(), name, process);
    return length < static_cast<int>(sizeof out);
}

// Writes a file beside and moves it into place; a link that somebody laid there is not followed. Result: 0, or errno.
int replace(const char* name, const status_text& text)
{
    char path[path_bytes];
    char beside[path_bytes];
    if (!text.whole) { return EMSGSIZE; }
    if (!path_of(path, name, 0) || !path_of(beside, name, getpid())) { return ENAMETOOLONG; }
    unlink(beside);
    const unique_fd file = open_regular(beside, O_WRONLY | O_CREAT | O_EXCL, file_mode);
    if (!file) { return errno; }
    if (!write_full(file, {reinterpret_cast<const uint8_t*>(text.bytes), text.used}, 0)) { return errno; }
    return rename(beside, path) == 0 ? 0 : errno;
}

// A check thread that is held up shows before its next pass, too.
void take_check_gap(link_counters* figures)
{
    uint64_t gap = figures->check_gap_us.take();
    if (const uint32_t last = figures->last_check_us; last != 0) {
        const auto running = static_cast<int32_t>(monotonic_us() - last); // negative: a pass began meanwhile
        gap = std::max(gap, static_cast<uint64_t>(std::max(running, 0)));
    }
    figures->check_gap_shown_us.set(gap);
    figures->check_gap_most_us.raise_to(gap);
}

void take_figures()
{
    const auto is_reached = endpoint_is_reached.load();
    const bool up = daemon_count.endpoint_registered.get() != 0 && (is_reached == nullptr || is_reached());
    daemon_count.endpoint_up.set(up ? 1 : 0);
    for (int link = 0; link < MAX_ETH; ++link) {
        link_count[link].kernel_dropped.add(take_kernel_drops(link));
        take_check_gap(&link_count[link]);
    }
}

void note(int error)
{
    static bool failed; // the status thread's own
    if (error != 0 && !failed) {
        log_print(LOG_HERE, "no status in %s: %s; trying on\n", status_folder(), strerror(error));
    }
    if (error == 0 && failed) { log_print(LOG_HERE, "status in %s is written again\n", status_folder()); }
    failed = error != 0;
}

void run_status_thread(int)
{
    // Or the first figures would call an endpoint missing that is only not there yet.
    for (int ms = 0; ms < start_ms && daemon_count.endpoint_registered.get() == 0; ms += 10) { pause_ms(10); }
    for (;;) {
        static_cast<void>(status_step()); // it has said so
        feed_watchdog();
        tzset(); // of a zone that is set meanwhile the log learns here: no other thread looks for one
        for (int half = 0; half < 2; ++half) {
            for (int link = 0; link < MAX_ETH; ++link) { watch_link(link); }
            if (g_eth_init[0].active != 0) {
                pause_ms(period_ms / 2);
                continue;
            }
            for (uint64_t ms = 0; ms < period_ms / 2; ms += 10) { // in the place of a check thread
                offer_outbox();
                pause_ms(10);
            }
        }
    }
}

} // namespace

int32_t start_status_thread()
{
    if (start_thread_or_retry("rvk-status", run_status_thread) == 0) { return 0; }
    log_print(LOG_HERE, "failed to create thread : no status is written\n");
    return -1;
}

bool status_step()
{
    static status_text text; // the status thread's own
    static const uint64_t started_ms = boot_ms();
    const status_moment now{apcard_bit_self(), getpid(), static_cast<uint64_t>(time(nullptr)), boot_ms(), started_ms};
    take_figures();
    static_cast<void>(mkdir(status_folder(), folder_mode)); // one that cannot be made is the next step's failure
    write_json(&text, now);
    const int error = replace(status_json_name, text);
    write_prometheus(&text, now);
    const int other_error = replace(status_prometheus_name, text);
    note(error != 0 ? error : other_error);
    return error == 0 && other_error == 0;
}

} // namespace rvk
