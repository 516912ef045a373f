// Every way to die that the daemon knows: status 0 in time, and the last words wherever they can be said.
#include "system/daemon.h"

#include <gtest/gtest.h>

#include <memory>

using namespace rvk;

namespace {

enum class words { always, never, perhaps };

struct death {
    const char* name; // the victim's case
    int runs;
    words said;
    int status = 0;
};
// A sanitizer's own locks and delays make "perhaps" of what a random moment hits.
constexpr words at_random = sanitized ? words::perhaps : words::always;
const death deaths[] = {
    {"main", 5, words::always},
    {"thread", 5, words::always},
    {"raised", 5, words::always},
    {"overflow-main", 5, words::always},
    {"overflow-thread", 5, words::always},
    {"in-allocator", sanitized ? 50 : 200, at_random},
    {"in-pool", 40, at_random},
    {"in-log", 40, words::perhaps},       // by the lock that it may hold
    {"log-argument", 4, words::never},    // held for certain
    {"no-symbols", 5, words::perhaps, 1}, // the status is that of a trace that failed
    {"all-at-once", 40, words::always},
    {"alone", 5, words::always},
#if !defined(__SANITIZE_THREAD__)    // which lets no signal through in a handler
    {"in-trace", 5, words::perhaps}, // the count is 0
    {"alone-log-argument", 4, words::never},
#if !defined(__SANITIZE_ADDRESS__) // which ends the process itself
    {"broken-heap", 5, words::always},
#endif
#endif
};

constexpr size_t at_once = 8; // so many side by side: those that cannot speak take 1.5 s

// A block whose address is only in a register of the dead is no leak.
child_setup victim_setup() { return {.environment = {"ASAN_OPTIONS=detect_leaks=0", sanitizer_manners}}; }

std::vector<std::string> victim(const char* name, int seed)
{
    return {program("crash_victim"), name, std::to_string(seed)};
}

void expect_end(child& dying, const death& row)
{
    EXPECT_EQ(dying.end(2 * last_words), row.status); // from its start on
    const std::string fault = fault_in_last_words(dying.output());
    if (row.said == words::always) { EXPECT_EQ(fault, "") << dying.output(); }
    if (row.said == words::never) { EXPECT_EQ(fault, "no task_die!!!") << dying.output(); }
}

std::string output_of(const char* name)
{
    child dying(victim(name, 1), victim_setup());
    static_cast<void>(dying.end());
    return dying.output();
}

} // namespace

TEST(Crash, EndsWithStatus0AndItsLastWords)
{
    for (const death& row : deaths) {
        for (int run = 0; run < row.runs;) {
            SCOPED_TRACE(row.name + std::string(" ") + std::to_string(run));
            std::vector<std::unique_ptr<child>> batch;
            while (batch.size() < at_once && run < row.runs) {
                batch.push_back(std::make_unique<child>(victim(row.name, ++run), victim_setup()));
            }
            for (auto& dying : batch) { expect_end(*dying, row); }
            ASSERT_FALSE(HasFailure());
        }
    }
}

TEST(Crash, TheTraceIsThatOfTheThreadThatWasHit)
{
    for (const char* name : {"main", "thread", "alone"}) {
        SCOPED_TRACE(name);
        const std::string output = output_of(name);
        EXPECT_NE(output.find("(victim_faults_here+0x"), std::string::npos) << output;
        if (std::string(name) == "thread") { continue; }
        EXPECT_NE(output.find("(main+0x"), std::string::npos) << "its callers too\n" << output;
    }
#if !defined(__arm__) // its unwind tables do not cover the probe of the stack at a function's entry
    EXPECT_NE(output_of("overflow-thread").find("backtrace() returned 100 addresses\n"), std::string::npos);
#endif
#if !defined(__SANITIZE_THREAD__)
    EXPECT_NE(output_of("in-trace").find("backtrace() returned 0 addresses\n"), std::string::npos);
#endif
    const std::string failed = output_of("no-symbols");
    const std::string last = "]:: backtrace_symbols";
    ASSERT_GT(failed.size(), last.size());
    EXPECT_EQ(failed.substr(failed.size() - last.size()), last) << "without a line end";
}
