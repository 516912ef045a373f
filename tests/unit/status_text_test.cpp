// The two status texts: each figure stands in both, once, in forms that others read.
#include "base/counters.h"
#include "main/status_text.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <map>
#include <sstream>

using namespace rvk;

namespace {

// Gives all figures that both texts show as they are a value of their own. Result: how many there are.
int set_all(uint64_t first, uint64_t step)
{
    int figures = 0;
    const auto set = [&](auto&... all) { (all.set(first + step * static_cast<uint64_t>(figures++)), ...); };
    const auto set_each = [&](auto&... kinds) { (std::for_each(kinds.all.begin(), kinds.all.end(), set), ...); };
    for (link_counters& c : link_count) {
        set(c.frames_sent, c.frames_received, c.bytes_sent, c.bytes_received, c.kernel_dropped, c.resends, c.given_up);
        set(c.wrong_acks);
        set_each(c.dropped, c.send_failed);
    }
    daemon_counters& d = daemon_count;
    set_each(d.commands, d.refused, d.jobs_done, d.jobs_failed, d.transfer_done, d.transfer_total);
    set(d.dropped_in_update, d.messages_dropped);
    return figures;
}

TEST(StatusText, BothSayTheSame)
{
    static status_text text;
    const status_moment moment{1, 77, 1'700'000'000, 90'500, 30'000};
    const int figures = set_all(100'000, 1);
    for (const uint32_t us : {0u, 16u, 17u, 1000u, 524'288u, 524'289u, 4'000'000'000u}) {
        link_count[0].count_answer(us);
    }
    write_json(&text, moment);
    const auto json = nlohmann::json::parse(std::string(text.bytes, text.used));
    const auto flat = json.flatten();
    write_prometheus(&text, moment);
    std::istringstream lines(std::string(text.bytes, text.used));
    std::map<std::string, int> seen; // how often each value: 1 for JSON, 1'000 for the other
    std::map<std::string, std::string> samples;
    for (const auto& [path, value] : flat.items()) { seen[value.dump()] += 1; }
    for (std::string line; std::getline(lines, line);) {
        const size_t blank = line.rfind(' ');
        EXPECT_TRUE(samples.emplace(line.substr(0, blank), line.substr(blank + 1)).second) << line;
        if (line[0] != '#') { seen[line.substr(blank + 1)] += 1'000; }
    }
    for (int i = 0; i < figures; ++i) { EXPECT_EQ(seen[std::to_string(100'000 + i)], 1'001) << i; }
    EXPECT_EQ(json["links"][2]["dropped"]["no_such_request"].dump(),
              samples.at("rvkd_frames_dropped_total{link=\"2\",cause=\"no_such_request\"}"));
    const auto answers = json["links"][0]["answers"];
    EXPECT_EQ(answers["at_most_us"]["16"].dump() + answers["at_most_us"]["1024"].dump() + answers["longer"].dump(),
              "212");
    EXPECT_EQ(samples.at("rvkd_answer_seconds_bucket{link=\"0\",le=\"0.000032\"}"), "3");
    EXPECT_EQ(samples.at("rvkd_answer_seconds_sum{link=\"0\"}"), "4001.049610");
    set_all(UINT64_MAX, 0); // the largest figures fit
    for (const auto write : {write_json, write_prometheus}) {
        write(&text, moment);
        EXPECT_TRUE(text.whole);
    }
}

} // namespace
