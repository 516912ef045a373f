// The status files, and what else the daemon looks after once a second: one table of figures, written as JSON and as
// Prometheus text. It reads the counters, the queues' lengths and the pool without a lock, and allocates nothing.
#include "ap_msg/message.h"
#include "base/board.h"
#include "base/clock.h"
#include "base/counters.h"
#include "base/fd.h"
#include "base/rt_thread.h"
#include "eth_raw/link.h"
#include "main/log.h"
#include "main/main.h"
#include "mem/mem.h"
#include "platform/platform.h"
#include "queue/queue.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cinttypes>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <span>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <utility>

namespace rvk {
namespace {

constexpr uint64_t half_period_ms = 500;               // ours
constexpr int start_ms = 500;                          // ours: until the command thread has its endpoint
constexpr uint32_t still_us = 5'000'000;               // ours: a check pass comes every 10 ms
constexpr size_t text_bytes = 32 * 1024;               // ours: some three times what either text has
constexpr mode_t file_mode = 0644, folder_mode = 0755; // the umask is 0

// The text that the status thread is writing.
struct {
    char bytes[text_bytes];
    size_t used;
    bool cut; // something did not fit
} text;

constexpr std::array one_key{""};
constexpr std::array directions{"sent", "received"};
constexpr std::array queue_names{"ack", "ack_wait", "read", "read_wait"};
constexpr std::array pool_names{"64", "128", "256", "512", "1024", "2048", "4096", "8192"};
static_assert(pool_names.size() == mem_classes && mem_type.front() == 64 && mem_type.back() == 8192);

// Figures that belong together: one each, or one per key.
struct family {
    const char* name;        // in JSON
    std::string_view metric; // in Prometheus text: _total only grows, _seconds has a value in µs
    const char* help;
    uint64_t (*value)(int link, size_t key); // of the daemon's own, the link means nothing
    const char* label = nullptr;             // what the keys are, there
    std::span<const char* const> keys = one_key;
};

constexpr family link_families[] = {
    {"open", "rvkd_link_open", "1 while the link's socket is open and its threads run.",
     [](int link, size_t) { return static_cast<uint64_t>(is_open(g_eth_init[link])); }},
    {"frames", "rvkd_frames_total", "Frames on the link, resends and dropped ones included.",
     [](int link, size_t key) {
         return (key == 0 ? link_count[link].frames_sent : link_count[link].frames_received).get();
     },
     "direction", directions},
    {"bytes", "rvkd_frame_bytes_total", "Bytes of those frames, from destination address to checksum.",
     [](int link, size_t key) {
         return (key == 0 ? link_count[link].bytes_sent : link_count[link].bytes_received).get();
     },
     "direction", directions},
    {"dropped", "rvkd_frames_dropped_total", "Received frames that were dropped.",
     [](int link, size_t key) { return link_count[link].dropped.all[key].get(); }, "cause", drop_names},
    {"kernel_dropped", "rvkd_frames_lost_in_kernel_total", "Frames for which the link's socket had no space.",
     [](int link, size_t) { return link_count[link].kernel_dropped.get(); }},
    {"send_failed", "rvkd_send_failures_total", "Sends that failed; would_block also those that then succeeded.",
     [](int link, size_t key) { return link_count[link].send_failed.all[key].get(); }, "cause", send_failure_names},
    {"resends", "rvkd_resends_total", "Requests sent again, after a time-out or a refusal.",
     [](int link, size_t) { return link_count[link].resends.get(); }},
    {"given_up", "rvkd_requests_given_up_total", "Requests that were never answered, or refused too often.",
     [](int link, size_t) { return link_count[link].given_up.get(); }},
    {"wrong_acks", "rvkd_wrong_acknowledgements_total", "Answers by which a card refused.",
     [](int link, size_t) { return link_count[link].wrong_acks.get(); }},
    {"queued", "rvkd_requests_pending", "Requests that wait for their answer.",
     [](int link, size_t key) { return static_cast<uint64_t>(std::max(queue_length(link, static_cast<int>(key)), 0)); },
     "queue", queue_names},
    {"check_gap_us", "rvkd_check_gap_seconds",
     "Longest time between two check passes in the last second; 0.01 is usual.",
     [](int link, size_t) { return link_count[link].check_gap_shown_us.get(); }},
    {"check_gap_most_us", "rvkd_check_gap_most_seconds", "Longest time between two check passes since the start.",
     [](int link, size_t) { return link_count[link].check_gap_most_us.get(); }},
};

constexpr family daemon_families[] = {
    {"commands", "rvkd_commands_total", "Commands received, refused and dropped ones included.",
     [](int, size_t key) { return daemon_count.commands.all[key].get(); }, "command", command_names},
    {"refused", "rvkd_commands_refused_total", "Commands that were not carried out.",
     [](int, size_t key) { return daemon_count.refused.all[key].get(); }, "cause", refusal_names},
    {"dropped_in_update", "rvkd_commands_dropped_in_update_total", "Commands that came while firmware was updated.",
     [](int, size_t) { return daemon_count.dropped_in_update.get(); }},
    {"jobs_done", "rvkd_file_jobs_done_total", "File commands that were carried out.",
     [](int, size_t key) { return daemon_count.jobs_done.all[key].get(); }, "job", job_names},
    {"jobs_failed", "rvkd_file_jobs_failed_total", "File commands that failed.",
     [](int, size_t key) { return daemon_count.jobs_failed.all[key].get(); }, "job", job_names},
    {"transfer_bytes", "rvkd_transfer_bytes", "Bytes moved of the transfer that runs.",
     [](int, size_t key) { return daemon_count.transfer_done.all[key].get(); }, "transfer", transfer_names},
    {"transfer_total_bytes", "rvkd_transfer_size_bytes", "Bytes of the transfer that runs, 0 while none does.",
     [](int, size_t key) { return daemon_count.transfer_total.all[key].get(); }, "transfer", transfer_names},
    {"messages_dropped", "rvkd_messages_dropped_total", "Messages to requesters that are gone or do not read.",
     [](int, size_t) { return daemon_count.messages_dropped.get(); }},
    {"endpoint", "rvkd_endpoint_up", "1 while requesters can reach the daemon.",
     [](int, size_t) { return daemon_count.endpoint_up.get(); }},
    {"steps", "rvkd_file_job_steps", "Exchanges with a card of the file job that runs or ran last.",
     [](int, size_t) { return daemon_count.steps.get(); }},
    {"steps_unanswered", "rvkd_file_job_steps_unanswered", "Those of them that the card did not answer.",
     [](int, size_t) { return daemon_count.steps_unanswered.get(); }},
    {"last_number", "rvkd_last_file_job_number", "Its requester's number for the last file job that ended.",
     [](int, size_t key) { return daemon_count.last_number.all[key].get(); }, "job", job_names},
    {"last_requester", "rvkd_last_file_job_requester", "Identity that asked for it.",
     [](int, size_t key) { return daemon_count.last_requester.all[key].get(); }, "job", job_names},
    {"last_steps", "rvkd_last_file_job_steps", "Its exchanges with the card.",
     [](int, size_t key) { return daemon_count.last_steps.all[key].get(); }, "job", job_names},
    {"last_unanswered", "rvkd_last_file_job_steps_unanswered", "Those of them that the card did not answer.",
     [](int, size_t key) { return daemon_count.last_unanswered.all[key].get(); }, "job", job_names},
    {"pool_in_use", "rvkd_pool_blocks_in_use", "Blocks of the pool that are handed out.",
     [](int, size_t key) { return static_cast<uint64_t>(mem_in_use(static_cast<int>(key))); }, "bytes", pool_names},
    {"pool_made", "rvkd_pool_blocks", "Blocks the pool has, waiting ones included.",
     [](int, size_t key) { return static_cast<uint64_t>(mem_made(static_cast<int>(key))); }, "bytes", pool_names},
};

__attribute__((format(printf, 1, 2))) void print(const char* format, ...)
{
    const size_t space = sizeof text.bytes - text.used;
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text.bytes + text.used, space, format, arguments);
    va_end(arguments);
    text.cut = text.cut || length < 0 || static_cast<size_t>(length) >= space;
    if (!text.cut) { text.used += static_cast<size_t>(length); }
}

void json_family(const family& f, int link)
{
    print(",\"%s\":", f.name);
    if (f.label == nullptr) { return print("%" PRIu64, f.value(link, 0)); }
    for (size_t i = 0; i < f.keys.size(); ++i) {
        print("%s\"%s\":%" PRIu64, i == 0 ? "{" : ",", f.keys[i], f.value(link, i));
    }
    print("}");
}

// By the upper bound of each entry in µs; what is above all of them has none.
void json_answer_times(const link_counters& figures)
{
    print(",\"answers\":{\"sum_us\":%" PRIu64 ",\"at_most_us\":{", figures.answer_time_us.get());
    for (size_t i = 0; i < answer_time_bounds; ++i) {
        print("%s\"%" PRIu64 "\":%" PRIu64, i == 0 ? "" : ",", answer_time_bound_us(i), figures.answer_time[i].get());
    }
    print("},\"longer\":%" PRIu64 "}", figures.answer_time[answer_time_bounds].get());
}

void write_json(uint64_t now_ms, uint64_t up_ms)
{
    print("{\"board\":%d,\"pid\":%d,\"time\":%" PRIu64 ",\"boot_ms\":%" PRIu64 ",\"up_ms\":%" PRIu64, apcard_bit_self(),
          getpid(), static_cast<uint64_t>(time(nullptr)), now_ms, up_ms);
    for (const family& f : daemon_families) { json_family(f, -1); }
    print(",\"links\":[");
    for (int link = 0; link < MAX_ETH; ++link) {
        print("%s{\"interface\":\"%s\"", link == 0 ? "" : ",", g_netdev_name[link]);
        for (const family& f : link_families) { json_family(f, link); }
        json_answer_times(link_count[link]);
        print("}");
    }
    print("]}\n");
}

void prometheus_head(std::string_view metric, const char* help, const char* type = "gauge")
{
    if (metric.ends_with("_total")) { type = "counter"; }
    print("# HELP %s %s\n# TYPE %s %s\n", metric.data(), help, metric.data(), type);
}

void prometheus_value(std::string_view metric, uint64_t value)
{
    if (!metric.ends_with("_seconds")) { return print(" %" PRIu64 "\n", value); }
    print(" %" PRIu64 ".%06" PRIu64 "\n", value / 1'000'000, value % 1'000'000);
}

// link: -1 for the daemon's own
void prometheus_samples(const family& f, int link)
{
    for (size_t i = 0; i < f.keys.size(); ++i) {
        print("%s", f.metric.data());
        if (link >= 0) { print("{link=\"%d\"", link); }
        if (f.label != nullptr) { print("%s%s=\"%s\"", link >= 0 ? "," : "{", f.label, f.keys[i]); }
        if (link >= 0 || f.label != nullptr) { print("}"); }
        prometheus_value(f.metric, f.value(link, i));
    }
}

// Cumulative, as that format wants it.
void prometheus_answer_times(int link)
{
    constexpr char metric[] = "rvkd_answer_seconds";
    const link_counters& figures = link_count[link];
    uint64_t so_far = 0;
    for (size_t i = 0; i < answer_time_bounds; ++i) {
        so_far += figures.answer_time[i].get();
        print("%s_bucket{link=\"%d\",le=\"0.%06" PRIu64 "\"} %" PRIu64 "\n", metric, link, answer_time_bound_us(i),
              so_far);
    }
    so_far += figures.answer_time[answer_time_bounds].get();
    print("%s_bucket{link=\"%d\",le=\"+Inf\"} %" PRIu64 "\n%s_sum{link=\"%d\"}", metric, link, so_far, metric, link);
    prometheus_value(metric, figures.answer_time_us.get());
    print("%s_count{link=\"%d\"} %" PRIu64 "\n", metric, link, so_far);
}

void write_prometheus(uint64_t up_ms)
{
    constexpr char metric[] = "rvkd_up_seconds";
    prometheus_head(metric, "Time since the daemon's start.");
    print("%s", metric);
    prometheus_value(metric, up_ms * 1000);
    for (const family& f : daemon_families) {
        prometheus_head(f.metric, f.help);
        prometheus_samples(f, -1);
    }
    for (const family& f : link_families) {
        prometheus_head(f.metric, f.help);
        for (int link = 0; link < MAX_ETH; ++link) { prometheus_samples(f, link); }
    }
    prometheus_head("rvkd_answer_seconds", "Time from a request, or its last refusal, to an answer.", "histogram");
    for (int link = 0; link < MAX_ETH; ++link) { prometheus_answer_times(link); }
}

// Writes the text to a temporary file of this process's own, renames it into place, and empties the text. A symbolic
// link in the temporary file's place is not followed. Result: 0, or errno.
int replace(const char* name)
{
    char path[4096]; // the system's limit
    char beside[sizeof path];
    const size_t bytes = std::exchange(text.used, 0);
    if (std::exchange(text.cut, false)) { return EMSGSIZE; }
    snprintf(path, sizeof path, "%s/%s", status_folder(), name);
    if (snprintf(beside, sizeof beside, "%s.%d", path, getpid()) >= static_cast<int>(sizeof beside)) {
        return ENAMETOOLONG;
    }
    unlink(beside);
    const unique_fd file = open_regular(beside, O_WRONLY | O_CREAT | O_EXCL, file_mode);
    if (!file || !write_full(file, {reinterpret_cast<const uint8_t*>(text.bytes), bytes}, 0)) { return errno; }
    return rename(beside, path) == 0 ? 0 : errno;
}

// Writes both files. A failure is logged once, until it works again.
void write_files()
{
    static const uint64_t started_ms = boot_ms();
    static bool failed;
    const uint64_t now_ms = boot_ms();
    static_cast<void>(mkdir(status_folder(), folder_mode)); // one that cannot be made is the next step's failure
    write_json(now_ms, now_ms - started_ms);
    int error = replace(status_json_name);
    write_prometheus(now_ms - started_ms);
    if (const int other = replace(status_prometheus_name); error == 0) { error = other; }
    if (error != 0 && !failed) {
        log_print(LOG_HERE, "no status in %s: %s; trying on\n", status_folder(), strerror(error));
    }
    if (error == 0 && failed) { log_print(LOG_HERE, "status in %s is written again\n", status_folder()); }
    failed = error != 0;
}

void take_figures()
{
    const auto is_reached = endpoint_is_reached.load();
    const bool up = daemon_count.endpoint_registered.get() != 0 && (is_reached == nullptr || is_reached());
    daemon_count.endpoint_up.set(up ? 1 : 0);
    for (int link = 0; link < MAX_ETH; ++link) {
        link_counters& figures = link_count[link];
        figures.kernel_dropped.add(take_kernel_drops(link));
        uint64_t gap = figures.check_gap_us.take();
        if (const uint32_t last = figures.last_check_us; last != 0) { // a pass that is overdue shows before it comes
            const auto running = static_cast<int32_t>(monotonic_us() - last); // negative: one began meanwhile
            gap = std::max(gap, static_cast<uint64_t>(std::max(running, 0)));
        }
        figures.check_gap_shown_us.set(gap);
        figures.check_gap_most_us.raise_to(gap);
    }
}

// Result: nullptr when nothing is.
const char* what_is_stuck()
{
    if (daemon_count.endpoint_registered.get() != 0 && daemon_count.endpoint_up.get() == 0) {
        return "its endpoint's socket is gone, or another's";
    }
    for (int link = 0; link < MAX_ETH; ++link) {
        const uint32_t last = link_count[link].last_check_us;
        if (is_open(g_eth_init[link]) && last != 0 && monotonic_us() - last > still_us) {
            return "a link's check thread hangs";
        }
    }
    return nullptr;
}

// Tells the service manager, if it gave $NOTIFY_SOCKET, that nothing is stuck; when it hears nothing, it restarts us.
void feed_watchdog()
{
    static const char* said;
    const char* const what = what_is_stuck();
    if (what != nullptr && what != said) { log_print(LOG_HERE, "nobody is served: %s; restart the daemon\n", what); }
    said = what;
    constexpr std::string_view alive = "WATCHDOG=1";
    const char* const named = getenv("NOTIFY_SOCKET");
    sockaddr_un manager{AF_UNIX, ""};
    if (named == nullptr || strlen(named) > sizeof manager.sun_path || what != nullptr) { return; }
    memcpy(manager.sun_path, named, strlen(named));
    if (manager.sun_path[0] == '@') { manager.sun_path[0] = '\0'; } // abstract
    const auto length = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + strlen(named));
    const unique_fd fd{socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    static_cast<void>(sendto(fd.get(), alive.data(), alive.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                             reinterpret_cast<const sockaddr*>(&manager), length));
}

void run_status_thread(int)
{
    // Without it the first figures would show no endpoint while it is being registered.
    for (int ms = 0; ms < start_ms && daemon_count.endpoint_registered.get() == 0; ms += 10) { pause_ms(10); }
    for (;;) {
        take_figures();
        write_files();
        feed_watchdog();
        tzset(); // the only call: so the log follows a change of the time zone
        for (int half = 0; half < 2; ++half) {
            for (int link = 0; link < MAX_ETH; ++link) { watch_link(link); }
            const bool offers = g_eth_init[0].active == 0; // in the place of a check thread
            for (uint64_t ms = 0, step = offers ? 10 : half_period_ms; ms < half_period_ms; ms += step) {
                if (offers) { offer_outbox(); }
                pause_ms(step);
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

} // namespace rvk
