// Plays every line of stories.txt. A line that is not understood fails, and so does a file without stories.
#include "sim/story.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <sstream>

using namespace rvk;

namespace {

std::vector<std::string> split(const std::string& text, char at)
{
    std::vector<std::string> parts;
    std::istringstream all(text);
    for (std::string part; std::getline(all >> std::ws, part, at);) {
        part.erase(part.find_last_not_of(' ') + 1);
        parts.push_back(part);
    }
    return parts;
}

// One story for each alternative that stands in a word.
std::vector<std::vector<std::string>> alternatives(const std::vector<std::string>& words)
{
    std::vector<std::vector<std::string>> all{words};
    for (size_t i = 0; i < words.size(); ++i) {
        if (words[i].find('/') == std::string::npos) { continue; }
        all.clear();
        for (const std::string& one : split(words[i], '/')) { (all.emplace_back(words))[i] = one; }
    }
    return all;
}

// "(expiry*4) good" and the like, into the three times of a story.
void read_events(const std::string& column, story* s)
{
    std::string spaced;
    for (const char c : column) {
        spaced += std::string("()[]").find(c) < 4 ? std::string{' ', c, ' '} : std::string{c};
    }
    std::deque<std::string>* now = &s->then;
    for (std::string word : split(spaced, ' ')) {
        const auto star = word.find('*'), equals = word.find('=');
        const unsigned times = star == word.npos ? 1 : static_cast<unsigned>(std::stoul(word.substr(star + 1)));
        word = word.substr(0, star);
        if (equals != word.npos) {
            s->set[word.substr(0, equals)] = static_cast<unsigned>(std::stoul(word.substr(equals + 1)));
            s->times[word.substr(0, equals)] = times;
        } else if (word == "(" || word == "[" || word == ")" || word == "]") {
            now = word == "(" ? &s->before : word == "[" ? &s->held : &s->then;
        } else {
            now->insert(now->end(), word.empty() ? 0 : times, word);
        }
    }
}

size_t play_line(const std::string& line)
{
    std::vector<std::string> columns = split(line + " ", '|');
    if (columns.size() < 4 || columns.size() > 5) { return ADD_FAILURE() << "not a story", 0; }
    columns.resize(5);
    const auto counters = split(columns[4], ',');
    story s;
    read_events(columns[1], &s);
    const auto asked = alternatives(split(columns[0], ' '));
    for (const auto& words : asked) {
        SCOPED_TRACE(words.at(0) + ' ' + words.at(1));
        s.asked = words;
        const ending e = tell(s);
        EXPECT_EQ(std::to_string(e.frames) + (e.frames == 1 ? " frame" : " frames"), columns[2]);
        EXPECT_EQ(e.how, columns[3]);
        EXPECT_EQ(e.counters, std::set<std::string>(counters.begin(), counters.end()));
    }
    return asked.size();
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
