// The two status texts: they say the same, in forms that others read.
#include "base/counters.h"
#include "main/status_text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <limits>
#include <map>
#include <set>
#include <sstream>

using namespace rvk;

namespace {

status_text text;
constexpr status_moment moment{1, 77, 1'700'000'000, 90'500, 30'000};

nlohmann::json json_now()
{
    write_json(&text, moment);
    EXPECT_TRUE(text.whole);
    return nlohmann::json::parse(std::string(text.bytes, text.used));
}

// By name and labels; every sample stands under the HELP and TYPE lines of its family, and once.
std::map<std::string, std::string> samples_now()
{
    write_prometheus(&text, moment);
    EXPECT_TRUE(text.whole);
    std::istringstream lines(std::string(text.bytes, text.used));
    std::map<std::string, std::string> samples;
    std::set<std::string> families;
    std::string line, family, type;
    while (std::getline(lines, line)) {
        if (line.starts_with("# HELP ")) {
            family = line.substr(7, line.find(' ', 7) - 7);
            EXPECT_TRUE(families.insert(family).second) << family << " stands twice";
        } else if (line.starts_with("# TYPE ")) {
            EXPECT_EQ(line.substr(7, family.size() + 1), family + " ");
            type = line.substr(8 + family.size());
            EXPECT_EQ(type == "counter", family.ends_with("_total")) << line;
        } else {
            const size_t blank = line.rfind(' ');
            EXPECT_TRUE(line.starts_with(family)) << line;
            EXPECT_TRUE(samples.emplace(line.substr(0, blank), line.substr(blank + 1)).second) << line;
        }
    }
    return samples;
}

void set_all(uint64_t first, uint64_t step)
{
    uint64_t next = first;
    const auto set = [&](counter& c) { c.set(std::exchange(next, next + step)); };
    for (link_counters& c : link_count) {
        for (counter* one :
             {&c.frames_sent, &c.frames_received, &c.bytes_sent, &c.bytes_received, &c.kernel_dropped, &c.resends,
              &c.given_up, &c.wrong_acks, &c.answer_time_us, &c.check_gap_shown_us, &c.check_gap_most_us}) {
            set(*one);
        }
        for (counter& one : c.dropped.all) { set(one); }
        for (counter& one : c.send_failed.all) { set(one); }
        for (counter& one : c.answer_time) { set(one); }
    }
    for (counter& one : daemon_count.commands.all) { set(one); }
    for (counter& one : daemon_count.refused.all) { set(one); }
    for (counter& one : daemon_count.transfer_total.all) { set(one); }
    set(daemon_count.dropped_in_update);
    set(daemon_count.messages_dropped);
}

class StatusText : public testing::Test {
protected:
    void TearDown() override { set_all(0, 0); }
};

} // namespace

TEST_F(StatusText, BothSayTheSame)
{
    set_all(1000, 1);
    const nlohmann::json json = json_now();
    const auto samples = samples_now();
    const struct {
        nlohmann::json::json_pointer in_json;
        const char* in_prometheus;
    } rows[] = {
        {"/commands/file_write"_json_pointer, "rvkd_commands_total{command=\"file_write\"}"},
        {"/refused/no_memory"_json_pointer, "rvkd_commands_refused_total{cause=\"no_memory\"}"},
        {"/dropped_in_update"_json_pointer, "rvkd_commands_dropped_in_update_total"},
        {"/messages_dropped"_json_pointer, "rvkd_messages_dropped_total"},
        {"/transfer_total_bytes/firmware"_json_pointer, "rvkd_transfer_size_bytes{transfer=\"firmware\"}"},
        {"/links/0/frames/sent"_json_pointer, "rvkd_frames_total{link=\"0\",direction=\"sent\"}"},
        {"/links/2/bytes/received"_json_pointer, "rvkd_frame_bytes_total{link=\"2\",direction=\"received\"}"},
        {"/links/1/dropped/no_such_request"_json_pointer,
         "rvkd_frames_dropped_total{link=\"1\",cause=\"no_such_request\"}"},
        {"/links/1/send_failed/other"_json_pointer, "rvkd_send_failures_total{link=\"1\",cause=\"other\"}"},
        {"/links/0/given_up"_json_pointer, "rvkd_requests_given_up_total{link=\"0\"}"},
        {"/pool_in_use/8192"_json_pointer, "rvkd_pool_blocks_in_use{bytes=\"8192\"}"},
    };
    for (const auto& row : rows) {
        ASSERT_TRUE(samples.contains(row.in_prometheus)) << row.in_prometheus;
        EXPECT_EQ(std::to_string(json.at(row.in_json).get<uint64_t>()), samples.at(row.in_prometheus));
    }
    EXPECT_EQ(json["links"][0]["check_gap_us"], link_count[0].check_gap_shown_us.get());
    EXPECT_EQ(samples.at("rvkd_check_gap_seconds{link=\"0\"}"), "0.001009");
    EXPECT_EQ(json["up_ms"], 60'500);
    EXPECT_EQ(samples.at("rvkd_up_seconds"), "60.500000");
}

TEST_F(StatusText, AnswerTimesAddUp)
{
    for (const uint32_t us : {0u, 16u, 17u, 1000u, 524'288u, 524'289u, 4'000'000'000u}) {
        link_count[0].count_answer(us);
    }
    const nlohmann::json answers = json_now()["links"][0]["answers"];
    EXPECT_EQ(answers["at_most_us"]["16"], 2);
    EXPECT_EQ(answers["at_most_us"]["32"], 1);
    EXPECT_EQ(answers["at_most_us"]["1024"], 1);
    EXPECT_EQ(answers["at_most_us"]["524288"], 1);
    EXPECT_EQ(answers["longer"], 2);
    const auto samples = samples_now();
    EXPECT_EQ(samples.at("rvkd_answer_seconds_bucket{link=\"0\",le=\"0.000032\"}"), "3");
    EXPECT_EQ(samples.at("rvkd_answer_seconds_bucket{link=\"0\",le=\"0.524288\"}"), "5");
    EXPECT_EQ(samples.at("rvkd_answer_seconds_bucket{link=\"0\",le=\"+Inf\"}"), "7");
    EXPECT_EQ(samples.at("rvkd_answer_seconds_count{link=\"0\"}"), "7");
    EXPECT_EQ(samples.at("rvkd_answer_seconds_sum{link=\"0\"}"), "4001.049610");
}

TEST_F(StatusText, TheLargestFiguresFit)
{
    set_all(std::numeric_limits<uint64_t>::max(), 0);
    EXPECT_EQ(json_now()["links"][2]["frames"]["sent"], std::numeric_limits<uint64_t>::max());
    static_cast<void>(samples_now());
}
