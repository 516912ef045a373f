// The two status texts: each figure stands in both, once, in forms that others read.
#include "base/counters.h"
#include "main/status_text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
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

// By name and labels.
std::map<std::string, std::string> samples_now()
{
    write_prometheus(&text, moment);
    EXPECT_TRUE(text.whole);
    std::istringstream lines(std::string(text.bytes, text.used));
    std::map<std::string, std::string> samples;
    std::string line, family;
    while (std::getline(lines, line)) {
        if (line.starts_with("# HELP ")) { family = line.substr(7, line.find(' ', 7) - 7); }
        if (line.starts_with("#")) { continue; }
        const size_t blank = line.rfind(' ');
        EXPECT_TRUE(line.starts_with(family)) << line;
        EXPECT_TRUE(samples.emplace(line.substr(0, blank), line.substr(blank + 1)).second) << line;
    }
    return samples;
}

// Gives all figures that both texts show as they are a value of their own. Result: how many there are.
int set_all(uint64_t first, uint64_t step)
{
    int figures = 0;
    const auto set = [&](counter& c) { c.set(first + step * static_cast<uint64_t>(figures++)); };
    for (link_counters& c : link_count) {
        for (counter* one : {&c.frames_sent, &c.frames_received, &c.bytes_sent, &c.bytes_received, &c.kernel_dropped,
                             &c.resends, &c.given_up, &c.wrong_acks}) {
            set(*one);
        }
        for (counter& one : c.dropped.all) { set(one); }
        for (counter& one : c.send_failed.all) { set(one); }
    }
    daemon_counters& d = daemon_count;
    for (counter& one : d.commands.all) { set(one); }
    for (counter& one : d.refused.all) { set(one); }
    for (auto* jobs : {&d.jobs_done, &d.jobs_failed}) {
        for (counter& one : jobs->all) { set(one); }
    }
    for (auto* transfers : {&d.transfer_done, &d.transfer_total}) {
        for (counter& one : transfers->all) { set(one); }
    }
    set(d.dropped_in_update);
    set(d.messages_dropped);
    return figures;
}

TEST(StatusText, BothSayTheSame)
{
    const int figures = set_all(100'000, 1);
    const nlohmann::json json = json_now();
    const auto samples = samples_now();
    std::map<std::string, int> seen; // 1 for JSON, 1'000 for the other
    const nlohmann::json flat = json.flatten();
    for (const auto& [path, value] : flat.items()) { seen[value.dump()] += 1; }
    for (const auto& [name, value] : samples) { seen[value] += 1'000; }
    for (int i = 0; i < figures; ++i) { EXPECT_EQ(seen[std::to_string(100'000 + i)], 1'001) << i; }
    EXPECT_EQ(json["commands"]["file_write"].dump(), samples.at("rvkd_commands_total{command=\"file_write\"}"));
    EXPECT_EQ(json["links"][2]["dropped"]["no_such_request"].dump(),
              samples.at("rvkd_frames_dropped_total{link=\"2\",cause=\"no_such_request\"}"));
    EXPECT_EQ(json["up_ms"], 60'500);
    EXPECT_EQ(samples.at("rvkd_up_seconds"), "60.500000");
    set_all(UINT64_MAX, 0); // the largest figures fit
    EXPECT_EQ(json_now()["links"][2]["frames"]["sent"], UINT64_MAX);
    static_cast<void>(samples_now());
}

TEST(StatusText, TimesAddUp)
{
    for (const uint32_t us : {0u, 16u, 17u, 1000u, 524'288u, 524'289u, 4'000'000'000u}) {
        link_count[0].count_answer(us);
    }
    link_count[0].check_gap_shown_us.set(1009);
    const nlohmann::json json = json_now()["links"][0];
    EXPECT_EQ(json["answers"]["at_most_us"]["16"], 2);
    EXPECT_EQ(json["answers"]["at_most_us"]["1024"], 1);
    EXPECT_EQ(json["answers"]["longer"], 2);
    const auto samples = samples_now();
    const std::string name = "rvkd_answer_seconds", link = "{link=\"0\"";
    EXPECT_EQ(samples.at(name + "_bucket" + link + ",le=\"0.000032\"}"), "3");
    EXPECT_EQ(samples.at(name + "_bucket" + link + ",le=\"0.524288\"}"), "5");
    EXPECT_EQ(samples.at(name + "_bucket" + link + ",le=\"+Inf\"}"), "7");
    EXPECT_EQ(samples.at(name + "_sum" + link + "}"), "4001.049610");
    EXPECT_EQ(samples.at("rvkd_check_gap_seconds" + link + "}"), "0.001009");
}

} // namespace
