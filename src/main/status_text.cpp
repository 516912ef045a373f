#include "main/status_text.h"

#include "base/counters.h"
#include "eth_raw/link.h"
#include "mem/mem.h"
#include "queue/queue.h"

#include <algorithm>
#include <array>
#include <cinttypes>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <span>

namespace rvk {
namespace {

enum class unit : uint8_t { one, microseconds };

// Figures that belong together: one each, or one per key.
struct family {
    const char* name;   // in JSON
    const char* metric; // in Prometheus text; ends in _total when it only grows
    const char* help;
    const char* label; // what the keys are, there
    std::span<const char* const> keys;
    uint64_t (*value)(int link, size_t key); // of the daemon's own, the link means nothing
    unit in = unit::one;
};

constexpr std::array one_key{""};
constexpr std::array directions{"sent", "received"};
constexpr std::array queue_names{"ack", "ack_wait", "read", "read_wait"};
constexpr std::array pool_names{"64", "128", "256", "512", "1024", "2048", "4096", "8192"};
static_assert(pool_names.size() == mem_classes && mem_type.front() == 64 && mem_type.back() == 8192);

uint64_t either(size_t key, const counter& first, const counter& second) { return (key == 0 ? first : second).get(); }

constexpr family link_families[] = {
    {"open", "rvkd_link_open", "1 while the link's socket is open and its threads run.", nullptr, one_key,
     [](int link, size_t) { return static_cast<uint64_t>(is_open(g_eth_init[link])); }},
    {"frames", "rvkd_frames_total", "Frames on the link, resends and dropped ones included.", "direction", directions,
     [](int link, size_t key) { return either(key, link_count[link].frames_sent, link_count[link].frames_received); }},
    {"bytes", "rvkd_frame_bytes_total", "Bytes of those frames, from destination address to checksum.", "direction",
     directions,
     [](int link, size_t key) { return either(key, link_count[link].bytes_sent, link_count[link].bytes_received); }},
    {"dropped", "rvkd_frames_dropped_total", "Received frames that were dropped.", "cause", drop_names,
     [](int link, size_t key) { return link_count[link].dropped.all[key].get(); }},
    {"kernel_dropped", "rvkd_frames_lost_in_kernel_total", "Frames for which the link's socket had no room.", nullptr,
     one_key, [](int link, size_t) { return link_count[link].kernel_dropped.get(); }},
    {"send_failed", "rvkd_send_failures_total", "Sends that failed; would_block also those that then succeeded.",
     "cause", send_failure_names, [](int link, size_t key) { return link_count[link].send_failed.all[key].get(); }},
    {"resends", "rvkd_resends_total", "Requests sent again, after a time-out or a refusal.", nullptr, one_key,
     [](int link, size_t) { return link_count[link].resends.get(); }},
    {"given_up", "rvkd_requests_given_up_total", "Requests that were never answered, or refused too often.", nullptr,
     one_key, [](int link, size_t) { return link_count[link].given_up.get(); }},
    {"wrong_acks", "rvkd_wrong_acknowledgements_total", "Answers by which a card refused.", nullptr, one_key,
     [](int link, size_t) { return link_count[link].wrong_acks.get(); }},
    {"queued", "rvkd_requests_pending", "Requests that wait for their answer.", "queue", queue_names,
     [](int link, size_t key) {
         return static_cast<uint64_t>(std::max(queue_length(link, static_cast<int>(key)), 0));
     }},
    {"check_gap_us", "rvkd_check_gap_seconds",
     "Longest time between two check passes in the last second; 0.01 is usual.", nullptr, one_key,
     [](int link, size_t) { return link_count[link].check_gap_shown_us.get(); }, unit::microseconds},
    {"check_gap_most_us", "rvkd_check_gap_most_seconds", "Longest time between two check passes since the start.",
     nullptr, one_key, [](int link, size_t) { return link_count[link].check_gap_most_us.get(); }, unit::microseconds},
};

constexpr family daemon_families[] = {
    {"commands", "rvkd_commands_total", "Commands received, refused and dropped ones included.", "command",
     command_names, [](int, size_t key) { return daemon_count.commands.all[key].get(); }},
    {"refused", "rvkd_commands_refused_total", "Commands that were not carried out.", "cause", refusal_names,
     [](int, size_t key) { return daemon_count.refused.all[key].get(); }},
    {"dropped_in_update", "rvkd_commands_dropped_in_update_total", "Commands that came while firmware was updated.",
     nullptr, one_key, [](int, size_t) { return daemon_count.dropped_in_update.get(); }},
    {"jobs_done", "rvkd_file_jobs_done_total", "File commands whose requester was told so.", "job", job_names,
     [](int, size_t key) { return daemon_count.jobs_done.all[key].get(); }},
    {"jobs_failed", "rvkd_file_jobs_failed_total", "File commands that failed, as their requester was told.", "job",
     job_names, [](int, size_t key) { return daemon_count.jobs_failed.all[key].get(); }},
    {"transfer_bytes", "rvkd_transfer_bytes", "Bytes moved of the transfer that runs.", "transfer", transfer_names,
     [](int, size_t key) { return daemon_count.transfer_done.all[key].get(); }},
    {"transfer_total_bytes", "rvkd_transfer_size_bytes", "Bytes of the transfer that runs, 0 while none does.",
     "transfer", transfer_names, [](int, size_t key) { return daemon_count.transfer_total.all[key].get(); }},
    {"messages_dropped", "rvkd_messages_dropped_total", "Messages to requesters that are gone or do not read.", nullptr,
     one_key, [](int, size_t) { return daemon_count.messages_dropped.get(); }},
    {"endpoint", "rvkd_endpoint_up", "1 while requesters can reach the daemon.", nullptr, one_key,
     [](int, size_t) { return daemon_count.endpoint_up.get(); }},
    {"steps", "rvkd_file_job_steps", "Exchanges with a card of the file job that runs or ran last.", nullptr, one_key,
     [](int, size_t) { return daemon_count.steps.get(); }},
    {"steps_unanswered", "rvkd_file_job_steps_unanswered", "Those of them that the card did not answer.", nullptr,
     one_key, [](int, size_t) { return daemon_count.steps_unanswered.get(); }},
    {"last_number", "rvkd_last_file_job_number", "Its requester's number for the last file job that ended.", "job",
     job_names, [](int, size_t key) { return daemon_count.last_number.all[key].get(); }},
    {"last_requester", "rvkd_last_file_job_requester", "Identity that asked for it.", "job", job_names,
     [](int, size_t key) { return daemon_count.last_requester.all[key].get(); }},
    {"last_steps", "rvkd_last_file_job_steps", "Its exchanges with the card.", "job", job_names,
     [](int, size_t key) { return daemon_count.last_steps.all[key].get(); }},
    {"last_unanswered", "rvkd_last_file_job_steps_unanswered", "Those of them that the card did not answer.", "job",
     job_names, [](int, size_t key) { return daemon_count.last_unanswered.all[key].get(); }},
    {"pool_in_use", "rvkd_pool_blocks_in_use", "Blocks of the pool that are handed out.", "bytes", pool_names,
     [](int, size_t key) { return static_cast<uint64_t>(mem_in_use(static_cast<int>(key))); }},
    {"pool_made", "rvkd_pool_blocks", "Blocks the pool has, waiting ones included.", "bytes", pool_names,
     [](int, size_t key) { return static_cast<uint64_t>(mem_made(static_cast<int>(key))); }},
};

__attribute__((format(printf, 2, 3))) void print(status_text* out, const char* format, ...)
{
    const size_t room = sizeof out->bytes - out->used;
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(out->bytes + out->used, room, format, arguments);
    va_end(arguments);
    if (length < 0 || static_cast<size_t>(length) >= room) {
        out->whole = false;
    } else {
        out->used += static_cast<size_t>(length);
    }
}

void begin(status_text* out)
{
    out->used = 0;
    out->whole = true;
}

void json_family(status_text* out, const family& f, int link)
{
    print(out, ",\"%s\":", f.name);
    if (f.label == nullptr) { return print(out, "%" PRIu64, f.value(link, 0)); }
    for (size_t i = 0; i < f.keys.size(); ++i) {
        print(out, "%s\"%s\":%" PRIu64, i == 0 ? "{" : ",", f.keys[i], f.value(link, i));
    }
    print(out, "}");
}

// By the upper bound of each entry in µs; what is above all of them has none.
void json_answer_times(status_text* out, const link_counters& figures)
{
    print(out, ",\"answers\":{\"sum_us\":%" PRIu64 ",\"at_most_us\":{", figures.answer_time_us.get());
    for (size_t i = 0; i < answer_time_bounds; ++i) {
        print(out, "%s\"%" PRIu64 "\":%" PRIu64, i == 0 ? "" : ",", answer_time_bound_us(i),
              figures.answer_time[i].get());
    }
    print(out, "},\"longer\":%" PRIu64 "}", figures.answer_time[answer_time_bounds].get());
}

void prometheus_head(status_text* out, const char* metric, const char* help, const char* type)
{
    print(out, "# HELP %s %s\n# TYPE %s %s\n", metric, help, metric, type);
}

const char* type_of(const char* metric)
{
    constexpr char growing[] = "_total";
    const size_t length = strlen(metric);
    return length > sizeof growing && strcmp(metric + length - (sizeof growing - 1), growing) == 0 ? "counter"
                                                                                                   : "gauge";
}

void prometheus_value(status_text* out, uint64_t value, unit in)
{
    if (in == unit::one) { return print(out, " %" PRIu64 "\n", value); }
    print(out, " %" PRIu64 ".%06" PRIu64 "\n", value / 1'000'000, value % 1'000'000);
}

// link: -1 for the daemon's own
void prometheus_samples(status_text* out, const family& f, int link)
{
    for (size_t i = 0; i < f.keys.size(); ++i) {
        print(out, "%s", f.metric);
        if (link >= 0) { print(out, "{link=\"%d\"", link); }
        if (f.label != nullptr) { print(out, "%s%s=\"%s\"", link >= 0 ? "," : "{", f.label, f.keys[i]); }
        if (link >= 0 || f.label != nullptr) { print(out, "}"); }
        prometheus_value(out, f.value(link, i), f.in);
    }
}

// Cumulative, as that format wants it.
void prometheus_answer_times(status_text* out, int link)
{
    constexpr char metric[] = "rvkd_answer_seconds";
    const link_counters& figures = link_count[link];
    uint64_t so_far = 0;
    for (size_t i = 0; i < answer_time_bounds; ++i) {
        so_far += figures.answer_time[i].get();
        print(out, "%s_bucket{link=\"%d\",le=\"0.%06" PRIu64 "\"} %" PRIu64 "\n", metric, link, answer_time_bound_us(i),
              so_far);
    }
    so_far += figures.answer_time[answer_time_bounds].get();
    print(out, "%s_bucket{link=\"%d\",le=\"+Inf\"} %" PRIu64 "\n", metric, link, so_far);
    print(out, "%s_sum{link=\"%d\"}", metric, link);
    prometheus_value(out, figures.answer_time_us.get(), unit::microseconds);
    print(out, "%s_count{link=\"%d\"} %" PRIu64 "\n", metric, link, so_far);
}

} // namespace

void write_json(status_text* out, const status_moment& now)
{
    begin(out);
    print(out, "{\"board\":%d,\"pid\":%d,\"time\":%" PRIu64 ",\"boot_ms\":%" PRIu64 ",\"up_ms\":%" PRIu64, now.board,
          now.process, now.time_s, now.boot_ms, now.boot_ms - now.started_ms);
    for (const family& f : daemon_families) { json_family(out, f, -1); }
    print(out, ",\"links\":[");
    for (int link = 0; link < MAX_ETH; ++link) {
        print(out, "%s{\"interface\":\"%s\"", link == 0 ? "" : ",", g_netdev_name[link]);
        for (const family& f : link_families) { json_family(out, f, link); }
        json_answer_times(out, link_count[link]);
        print(out, "}");
    }
    print(out, "]}\n");
}

void write_prometheus(status_text* out, const status_moment& now)
{
    begin(out);
    prometheus_head(out, "rvkd_up_seconds", "Time since the daemon's start.", "gauge");
    print(out, "rvkd_up_seconds");
    prometheus_value(out, (now.boot_ms - now.started_ms) * 1000, unit::microseconds);
    for (const family& f : daemon_families) {
        prometheus_head(out, f.metric, f.help, type_of(f.metric));
        prometheus_samples(out, f, -1);
    }
    for (const family& f : link_families) {
        prometheus_head(out, f.metric, f.help, type_of(f.metric));
        for (int link = 0; link < MAX_ETH; ++link) { prometheus_samples(out, f, link); }
    }
    prometheus_head(out, "rvkd_answer_seconds", "Time from a request, or its last refusal, to an answer.", "histogram");
    for (int link = 0; link < MAX_ETH; ++link) { prometheus_answer_times(out, link); }
}

} // namespace rvk
