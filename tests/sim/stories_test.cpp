// Plays every line of stories.txt. A line that is not understood fails, and so does a file without stories.
#include "sim/story.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>

using namespace rvk;

namespace {

words split(const std::string& text, char at)
{
    words parts;
    std::istringstream all(text);
    for (std::string part; std::getline(all >> std::ws, part, at);) {
        part.erase(part.find_last_not_of(' ') + 1);
        parts.push_back(part);
    }
    return parts;
}

// "slot=2", "(expiry*4) good" and the like, into what is given and the three times of a story.
void read_events(const std::string& text, story* s)
{
    static const std::set<std::string> known{"on",    "for",  "dest",     "slot",   "model", "addr",       "len",
                                             "holds", "from", "updating", "blocks", "full",  "space_after"};
    std::deque<std::string>* now = &s->then;
    for (const std::string& all : split(std::regex_replace(text, std::regex("[()[\\]]"), " $& "), ' ')) {
        const auto star = all.find('*'), equals = all.find('=');
        const std::string word = all.substr(0, std::min(star, equals));
        if (equals != all.npos) {
            EXPECT_TRUE(known.contains(word)) << word;
            s->given[word] = static_cast<uint32_t>(std::stoll(all.substr(equals + 1), nullptr, 0));
        } else if (word == "(" || word == "[" || word == ")" || word == "]") {
            now = word == "(" ? &s->before : word == "[" ? &s->held : &s->then;
        } else {
            now->insert(now->end(), star == all.npos ? 1 : std::stoul(all.substr(star + 1)), word);
        }
    }
}

// Result: how many stories it is.
size_t play_line(const std::string& line)
{
    words columns = split(line + " ", '|');
    const words asked = split(columns.at(0), ' ');
    if (asked.size() < 2 || columns.size() < 4 || columns.size() > 5) { return ADD_FAILURE() << "not a story", 0; }
    columns.resize(5);
    words wanted = split(columns[4], ',');
    std::ranges::sort(wanted);
    wanted.insert(wanted.begin(), {columns[2], columns[3]});
    story s;
    for (size_t i = 2; i < asked.size(); ++i) { columns[1] += ' ' + asked[i]; }
    read_events(columns[1], &s);
    const words kinds = split(asked[0], '/'), numbers = split(asked[1], '/');
    for (size_t i = 0; i < kinds.size() * numbers.size(); ++i) {
        s.kind = kinds[i % kinds.size()];
        s.n = static_cast<uint32_t>(std::stoul(numbers[i / kinds.size()], nullptr, 0));
        EXPECT_EQ(tell(s), wanted) << s.kind << ' ' << s.n;
    }
    return kinds.size() * numbers.size();
}

TEST(Stories, EndAsTheyShould)
{
    std::ifstream file(RVK_STORIES);
    size_t told = 0, number = 0;
    for (std::string line; std::getline(file, line);) {
        ++number;
        if (line.empty() || line[0] == '#') { continue; }
        SCOPED_TRACE(std::to_string(number) + ": " + line);
        told += play_line(line);
    }
    EXPECT_GT(told, 100u);
}

} // namespace
