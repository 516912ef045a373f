#include "harness.h"

#include "base/clock.h"
#include "base/rt_thread.h"
#include "command/values.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <sched.h>

namespace rvk::bench {
namespace {

constexpr uint64_t between_rounds_ms = 5; // real-time threads must leave the processor some time

} // namespace

void take_processor(int priority)
{
    const sched_param parameter{priority};
    require(pin_to_processor(processor) == 0, "cannot be pinned to processor 1: two processors are needed");
    require(sched_setscheduler(0, SCHED_FIFO, &parameter) == 0, "no real-time priority: run it as root");
}

void fail(const std::string& why)
{
    std::fprintf(stderr, "rvk-bench: %s\n", why.c_str());
    std::_Exit(1); // the processes that belong to the row end with it
}

void print(const row& about, double ours, double bare, double ratio)
{
    const auto decimals = [](double value) { return value < 10 ? 2 : value < 100 ? 1 : 0; };
    const char* const kept = about.most == 0 ? "" : (about.of_bare ? ratio : ours) <= about.most ? "yes" : "**no**";
    const auto goal = about.most == 0 ? "" : tool::format("at most %g%s", about.most, about.of_bare ? " of it" : "");
    std::printf("| %s | %s | %.*f | %.*f | %s | %.2f | %s | %s |\n", about.work.c_str(), about.against.c_str(),
                decimals(ours), ours, decimals(bare), bare, about.unit.c_str(), ratio, goal.c_str(), kept);
    std::fflush(stdout);
}

void compare(const row& about, const measurement& ours, const measurement& bare)
{
    std::vector<double> of_ours, of_bare, ratios;
    ours();
    bare();
    for (int round = 0; round < rounds; ++round) {
        of_ours.push_back(ours());
        pause_ms(between_rounds_ms);
        of_bare.push_back(bare());
        pause_ms(between_rounds_ms);
        ratios.push_back(of_ours.back() / of_bare.back());
    }
    print(about, median(of_ours), median(of_bare), median(ratios));
}

double time_per_unit(size_t units, const std::function<void()>& work)
{
    const tool::stop_watch watch;
    work();
    return watch.seconds() * 1e9 / static_cast<double>(units);
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

} // namespace rvk::bench
