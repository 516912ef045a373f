#include "main/status.h"

#include "base/counters.h"
#include "base/fd.h"
#include "base/pause.h"
#include "base/rt_thread.h"
#include "eth_raw/link.h"
#include "main/log.h"
#include "main/status_text.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>

namespace rvk {
namespace {

constexpr uint64_t period_ms = 1000; // ours
constexpr mode_t file_mode = 0644, folder_mode = 0755;
constexpr size_t path_bytes = 4096; // the system's limit

uint64_t boot_ms()
{
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000 + static_cast<uint64_t>(now.tv_nsec) / 1'000'000;
}

const char* folder()
{
    const char* named = getenv("RVK_STATUS_DIR");
    return named != nullptr && *named != '\0' ? named : "/run/rvkd";
}

bool path_of(char (&out)[path_bytes], const char* name, const char* suffix)
{
    if (snprintf(out, sizeof out, "%s/%s%s", folder(), name, suffix) < static_cast<int>(sizeof out)) { return true; }
    errno = ENAMETOOLONG;
    return false;
}

bool replace(const char* name, const status_text& text)
{
    char path[path_bytes];
    char beside[path_bytes];
    if (!text.whole) {
        errno = EMSGSIZE;
        return false;
    }
    if (!path_of(path, name, "") || !path_of(beside, name, ".new")) { return false; }
    const unique_fd file = open_regular(beside, O_WRONLY | O_CREAT | O_TRUNC);
    if (!file || fchmod(file.get(), file_mode) != 0) { return false; }
    if (!write_full(file, {reinterpret_cast<const uint8_t*>(text.bytes), text.used}, 0)) { return false; }
    return rename(beside, path) == 0;
}

// Whatever mask we were started with; a folder that cannot be made makes the next step fail, which says so.
void make_folder()
{
    if (mkdir(folder(), folder_mode) == 0) { static_cast<void>(chmod(folder(), folder_mode)); }
}

void take_figures()
{
    for (int link = 0; link < MAX_ETH; ++link) { link_count[link].kernel_dropped.add(take_kernel_drops(link)); }
}

void forget_gaps()
{
    for (link_counters& figures : link_count) { figures.check_gap_us.take(); }
}

void note(bool written, int error)
{
    static bool failed; // the status thread's own
    if (!written && !failed) { log_print(LOG_HERE, "no status in %s: %s; trying on\n", folder(), strerror(error)); }
    if (written && failed) { log_print(LOG_HERE, "status in %s is written again\n", folder()); }
    failed = !written;
}

void write_for_ever(int)
{
    for (;;) {
        static_cast<void>(status_step()); // it has said so
        pause_ms(period_ms);
    }
}

} // namespace

int32_t start_status_thread()
{
    if (start_thread("rvk-status", 0, write_for_ever, 0, nullptr) == 0) { return 0; }
    log_print(LOG_HERE, "failed to create thread : no status is written\n");
    return -1;
}

bool status_step()
{
    static status_text text; // the status thread's own
    static const uint64_t started_ms = boot_ms();
    const status_moment now{getpid(), static_cast<uint64_t>(time(nullptr)), boot_ms(), started_ms};
    take_figures();
    make_folder();
    write_json(&text, now);
    bool written = replace("status.json", text);
    write_prometheus(&text, now);
    written = replace("status.prom", text) && written;
    note(written, errno);
    forget_gaps();
    return written;
}

} // namespace rvk
