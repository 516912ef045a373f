// The log to two files that alternate by day, with a clock of our own: whoever logs meanwhile loses nothing.
#include "system/daemon.h"

#include "base/mutex.h"
#include "main/log.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>
#include <sstream>
#include <thread>
#include <unistd.h>

using namespace rvk;

namespace {

std::atomic<time_t> today{0}; // what the clock shows; 0: the real time

constexpr time_t day = 24 * 60 * 60;

time_t date(int year, int month, int day_of_month)
{
    tm at{};
    at.tm_year = year - 1900;
    at.tm_mon = month - 1;
    at.tm_mday = day_of_month;
    at.tm_hour = 12;
    at.tm_isdst = -1;
    return mktime(&at);
}

std::string as_logged(time_t at)
{
    tm local{};
    localtime_r(&at, &local);
    char text[32];
    strftime(text, sizeof text, "%Y/%m/%d", &local);
    return text;
}

std::vector<log_line> lines_of(const std::string& path)
{
    std::vector<log_line> out;
    std::istringstream in(file_text(path));
    for (std::string text; std::getline(in, text);) { out.push_back(parse_log_line(text)); }
    return out;
}

std::string date_of(const log_line& line) { return line.time.substr(0, 10); }

// As after the start of a process, with the clock at noon of this day.
void begin(time_t at)
{
    if (log_fp != nullptr) { fclose(log_fp); }
    log_fp = nullptr;
    log_num = 0;
    log_d = 1;
    today = at;
    for (const std::string& path : log_files) { unlink(path.c_str()); }
}

} // namespace

extern "C" int REAL_CLOCK(clockid_t clock, timespec* out);
extern "C" int TEST_CLOCK(clockid_t clock, timespec* out)
{
    const int result = REAL_CLOCK(clock, out);
    if (clock == CLOCK_REALTIME && today != 0) { *out = {today, 123'999'999}; }
    return result;
}

TEST(LogFile, TheLineOfTheNewDayStillGoesToTheOldFile)
{
    begin(date(2027, 2, 27));
    log_print(LOG_HERE, "first\n");
    today += day;
    log_print(LOG_HERE, "second\n");
    EXPECT_EQ(access(log_files[1].c_str(), F_OK), -1) << "opened by the next line";
    log_print(LOG_HERE, "third\n");
    today += day; // the 1st
    log_print(LOG_HERE, "fourth\n");
    log_print(LOG_HERE, "fifth\n");
    const auto texts = [](const std::string& path) {
        std::string all;
        for (const log_line& line : lines_of(path)) { all += line.text + ' '; }
        return all;
    };
    EXPECT_EQ(texts(log_files[0]), "fifth ");
    EXPECT_EQ(texts(log_files[1]), "third fourth ");
    EXPECT_EQ(lines_of(log_files[0]).at(0).time, "2027/03/01 12:00:00.123");
}

TEST(LogFile, OnlyTheDayOfTheMonthIsCompared)
{
    begin(date(2027, 1, 15));
    log_print(LOG_HERE, "january\n");
    today = date(2027, 2, 15);
    log_print(LOG_HERE, "february\n");
    log_print(LOG_HERE, "february\n");
    EXPECT_EQ(lines_of(log_files[0]).size(), 3u);
    today = date(2027, 2, 14); // a clock that is set back
    log_print(LOG_HERE, "the day before\n");
    log_print(LOG_HERE, "the day before\n");
    EXPECT_EQ(lines_of(log_files[0]).size(), 4u);
    EXPECT_EQ(lines_of(log_files[1]).size(), 1u);
}

TEST(LogFile, LongNamesShiftTheHeaderAndLongHeadersAreCut)
{
    begin(date(2027, 1, 15));
    const std::string name(31, 'f'), longest(2000, 'g');
    log_print("a_module_with_a_name", name.c_str(), 1234567, "text\n");
    log_print("m", longest.c_str(), 1, "text\n");
    const std::string log = file_text(log_files[0]);
    EXPECT_NE(log.find("] [ a_module_with_a_name/" + name + "/1234567 ]:: text\n"), std::string::npos);
    const std::string second = log.substr(log.find('\n') + 1);
    EXPECT_EQ(second.size(), 1023 + strlen("text\n"));
    EXPECT_EQ(second.substr(1000), std::string(23, 'g') + "text\n");
}

TEST(LogFile, AFileThatCannotBeOpenedIsTriedAgain)
{
    begin(date(2027, 1, 15));
    std::filesystem::create_directory(log_files[0]); // in its place
    log_print(LOG_HERE, "lost\n");
    EXPECT_EQ(log_fp, nullptr);
    std::filesystem::remove(log_files[0]);
    log_print(LOG_HERE, "kept\n");
    ASSERT_EQ(lines_of(log_files[0]).size(), 1u);
    EXPECT_EQ(lines_of(log_files[0])[0].text, "kept");
}

// The day changes in the middle of each phase; afterwards the phase's lines lie in both files, each once and whole.
TEST(LogFile, NothingIsLostOrTornWhenTheDayChangesWhileOthersLog)
{
    constexpr int threads = 4, lines = 150, days = 40;
    begin(date(2027, 1, 10));
    for (int phase = 0; phase < days; ++phase) {
        SCOPED_TRACE(phase);
        const std::string before = as_logged(today), after = as_logged(today + day);
        std::atomic<int> written{0};
        std::vector<std::thread> writers;
        for (int t = 0; t < threads; ++t) {
            writers.emplace_back([&, t] {
                for (int i = 0; i < lines; ++i) {
                    log_print(LOG_HERE, "phase %d thread %d line %d of %d\n", phase, t, i, lines);
                    ++written;
                }
            });
        }
        while (written < threads * lines / 2) { std::this_thread::yield(); }
        today += day;
        for (std::thread& writer : writers) { writer.join(); }
        log_print(LOG_HERE, "phase %d\n", phase); // at least one line of the new day, and one more
        log_print(LOG_HERE, "phase %d\n", phase);

        const std::vector<log_line> old_file = lines_of(log_files[phase % 2]);
        const std::vector<log_line> new_file = lines_of(log_files[(phase + 1) % 2]);
        std::multiset<std::string> texts;
        for (const auto* file : {&old_file, &new_file}) {
            for (const log_line& line : *file) {
                ASSERT_TRUE(line.whole) << line.text;
                if (line.text.rfind("phase " + std::to_string(phase) + " t", 0) == 0) { texts.insert(line.text); }
            }
        }
        EXPECT_EQ(texts.size(), static_cast<size_t>(threads * lines));
        EXPECT_EQ(std::set<std::string>(texts.begin(), texts.end()).size(), texts.size());
        ASSERT_FALSE(new_file.empty());
        for (const log_line& line : new_file) { EXPECT_EQ(date_of(line), after); }
        for (size_t i = 0; i + 1 < old_file.size(); ++i) { EXPECT_EQ(date_of(old_file[i]), before); }
        EXPECT_EQ(date_of(old_file.back()), after);
        ASSERT_FALSE(HasFailure());
    }
}
