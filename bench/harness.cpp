// See the header.
#include "harness.h"

#include "base/clock.h"
#include "base/rt_thread.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <sched.h>

namespace rvk::bench {
namespace {

constexpr uint64_t between_rounds_ms = 5; // real-time threads must leave the processor some time

int decimals(double value) { return value < 10 ? 2 : value < 100 ? 1 : 0; }

void print_row(const std::string& work, const std::string& against, const std::string& unit, pair_of_medians found,
               const std::string& goal, bool kept)
{
    std::printf("| %s | %s | %.*f | %.*f | %s | %.2f | %s | %s |\n", work.c_str(), against.c_str(),
                decimals(found.ours), found.ours, decimals(found.bare), found.bare, unit.c_str(),
                found.ours / found.bare, goal.c_str(), kept ? "yes" : "**no**");
    std::fflush(stdout);
}

std::string at_most(double limit, const char* of)
{
    char text[48];
    std::snprintf(text, sizeof text, "at most %g%s", limit, of);
    return text;
}

} // namespace

void take_processor(int priority)
{
    sched_param parameter{};
    parameter.sched_priority = priority;
    if (pin_to_processor(processor) != 0) { fail("cannot be pinned to processor 1: two processors are needed"); }
    if (sched_setscheduler(0, SCHED_FIFO, &parameter) != 0) { fail("no real-time priority: run it as root"); }
}

void fail(const std::string& why)
{
    std::fprintf(stderr, "rvk-bench: %s\n", why.c_str());
    std::_Exit(1); // the processes that belong to the row end with it
}

pair_of_medians compare(int rounds, const measurement& ours, const measurement& bare)
{
    std::vector<double> of_ours, of_bare;
    ours();
    bare();
    for (int round = 0; round < rounds; ++round) {
        of_ours.push_back(ours());
        pause_ms(between_rounds_ms);
        of_bare.push_back(bare());
        pause_ms(between_rounds_ms);
    }
    return {median(of_ours), median(of_bare)};
}

double time_per_unit(size_t units, const std::function<void()>& work)
{
    using clock = std::chrono::steady_clock;
    const auto begin = clock::now();
    work();
    const std::chrono::duration<double, std::nano> taken = clock::now() - begin;
    return taken.count() / static_cast<double>(units);
}

double median(std::vector<double> values)
{
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void print_table_head()
{
    std::printf("| work | against | ours | bare | unit | ratio | goal | kept |\n"
                "|---|---|---|---|---|---|---|---|\n");
    std::fflush(stdout);
}

void print_ratio(const std::string& work, const std::string& against, const std::string& unit, pair_of_medians found,
                 double goal)
{
    print_row(work, against, unit, found, at_most(goal, " of it"), found.ours <= goal * found.bare);
}

void print_bound(const std::string& work, const std::string& against, const std::string& unit, pair_of_medians found,
                 double goal)
{
    print_row(work, against, unit, found, at_most(goal, ""), found.ours <= goal);
}

} // namespace rvk::bench
