// Commands and their answers: what the daemon is asked, which answer counts, and what a person and a script are told.
#include "ap_msg/message.h"
#include "platform/endpoint_folder.h"
#include "run_rvkctl.h"
#include "rvkctl/fake_daemon.h"

#include <algorithm>
#include <chrono>
#include <fstream>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

using namespace rvk;

namespace {

using std::chrono::milliseconds;
using arguments = std::vector<std::string>;
using codes = std::vector<int>;

constexpr int greeting = command::greeting, read_code = command::read, plain = command::write,
              acked = command::write_ack;

struct conversation_case {
    const char* name;
    manners how;
    arguments given;
    int status;
    codes asked;
    std::string says; // on standard output when done, else on standard error
};

const conversation_case cases[] = {
    {"a greeting is shown", {}, {"hello"}, 0, {greeting}, "Hello, I am rvk module!\n"},
    {"silence is no answer",
     {.greetings = 0},
     {"hello", "--timeout", "60"},
     3,
     {greeting},
     "rvkctl: board 1 did not answer within 60 ms ("},
    {"a good read is dumped", {}, {"read", "2", "0x10", "3"}, 0, {read_code}, "00000010: 0000 00"},
    {"a read that the card refuses", {.result = -1}, {"read", "2", "0x10", "3"}, 1, {read_code}, "slot 2, model 0x0"},
    {"a read without an answer",
     {.answers = false},
     {"read", "2", "0", "3", "--timeout", "60"},
     3,
     {read_code},
     "update"},
    {"less than was asked for", {.data_missing = 1}, {"read", "2", "0", "3"}, 1, {read_code}, "only 2 bytes"},
    {"an answer that claims too much", {.claims_more = 3}, {"read", "2", "0", "3"}, 1, {read_code}, "claims 6 bytes"},
    {"others' answers are not ours",
     {.strays_first = true},
     {"read", "2", "0x10", "3"},
     0,
     {read_code},
     "00000010: 0000 00"},
    {"others' answers to a write are not ours",
     {.strays_first = true},
     {"write", "2", "0", "aa"},
     0,
     {acked},
     "answered"},
    {"others' answers alone are none",
     {.answers = false, .strays_first = true},
     {"read", "2", "0", "3", "--timeout", "60"},
     3,
     {read_code},
     "did not answer"},

    {"a waited write",
     {},
     {"write", "2", "0x10", "aabb"},
     0,
     {acked},
     "2 bytes written to slot 2, model 0x0 at 0x00000010"},
    {"a waited write to slot 1 of a model", {}, {"write", "1", "0", "aa", "--model", "7"}, 0, {acked}, "answered"},
    {"a waited write to slot 1, high address", {}, {"write", "1", "0x10000000", "aa"}, 0, {acked}, "answered"},
    {"a waited write from the companion", {}, {"write", "1", "0", "aa", "--as", "0x3c"}, 0, {acked}, "answered"},
    {"a waited write that fails",
     {.result = -1},
     {"write", "2", "0", "aa"},
     1,
     {acked},
     "write of 1 byte at 0x00000000"},
    {"a waited write without an answer",
     {.answers = false},
     {"write", "2", "0", "aa", "--timeout", "60"},
     3,
     {acked},
     "0 of 1 byte confirmed, the next ones may have been written"},

    {"an unwaited write stands between greetings",
     {},
     {"write", "1", "0x0fffffff", "aa"},
     0,
     {greeting, acked, greeting},
     "no failure reported"},
    {"no greeting before it: nothing is sent",
     {.greetings = 0},
     {"write", "1", "0", "aa", "--timeout", "60"},
     3,
     {greeting},
     "did not answer"},
    {"no greeting behind it",
     {.greetings = 1},
     {"write", "1", "0", "aa", "--timeout", "60"},
     3,
     {greeting, acked, greeting},
     "may have been written"},
    {"a failure that is reported at once",
     {.reports = 1},
     {"write", "1", "0x20", "aa"},
     1,
     {greeting, acked, greeting},
     "reported by the daemon"},
    {"a failure that is reported 200 ms later",
     {.reports = 1, .report_delay = milliseconds{200}},
     {"write", "1", "0x20", "aa"},
     1,
     {greeting, acked, greeting},
     "did not answer at 0x00000020"},
    {"another write's failure",
     {.reports = 1, .report_delay = milliseconds{1}, .report_offset = 1},
     {"write", "1", "0x20", "aa"},
     0,
     {greeting, acked, greeting},
     "no failure reported"},
    {"a plain write is not asked about",
     {.reports = 1},
     {"write", "2", "0x20", "aa", "--no-ack"},
     0,
     {greeting, plain, greeting},
     "the card is not asked"},

    {"a write is read back",
     {},
     {"write", "2", "0x10", "aabb", "--verify"},
     0,
     {acked, read_code},
     "answered, read back the same\n"},
    {"a plain write is read back",
     {},
     {"write", "2", "0x10", "aabb", "--no-ack", "--verify"},
     0,
     {greeting, plain, greeting, read_code},
     "the card is not asked, read back the same\n"},
    {"another byte is read back",
     {.spoilt = 0x11},
     {"write", "2", "0x10", "aabb", "--verify"},
     1,
     {acked, read_code},
     "differs from what was written: first at offset 1 (0x00000011), wanted bb, got ba"},
    {"the card does not let it be read back",
     {.result = -1, .good_answers = 1},
     {"write", "2", "0x10", "aabb", "--verify"},
     1,
     {acked, read_code},
     "could not read it back: read of 2 bytes at 0x00000010"},
    {"no answer to reading back",
     {.answers = false},
     {"write", "2", "0x10", "aabb", "--no-ack", "--verify", "--timeout", "60"},
     3,
     {greeting, plain, greeting, read_code},
     "could not read it back: board 1 did not answer"},
};

codes codes_of(const std::vector<seen_command>& seen)
{
    codes out;
    for (const seen_command& c : seen) { out.push_back(c.code); }
    return out;
}

std::string patterned(size_t bytes)
{
    std::string out(bytes, '\0');
    for (size_t i = 0; i < bytes; ++i) { out[i] = static_cast<char>(i * 7 + i / 256); }
    return out;
}

std::string held_by(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

} // namespace

TEST(Conversation, EveryAnswerAndSilence)
{
    for (const conversation_case& c : cases) {
        SCOPED_TRACE(c.name);
        const endpoint_folder folder;
        fake_daemon daemon(c.how);
        const said ran = run_rvkctl(c.given);
        EXPECT_EQ(ran.status, c.status);
        EXPECT_EQ(codes_of(daemon.finish()), c.asked);
        EXPECT_NE((c.status == 0 ? ran.out : ran.err).find(c.says), std::string::npos) << ran.out << ran.err;
        EXPECT_EQ(std::count(ran.err.begin(), ran.err.end(), '\n'), c.status == 0 ? 0 : 1) << ran.err;
    }
}

TEST(Conversation, ACommandCarriesWhatWasAsked)
{
    const endpoint_folder folder;
    fake_daemon daemon({}, 4);
    EXPECT_EQ(run_rvkctl({"write", "3", "0xfffffffe", "01 a2", "--model", "0x1234", "--board", "4"}).status, 0);
    EXPECT_EQ(run_rvkctl({"--board", "4", "--as", "0x3C", "read", "5", "16", "1400"}).status, 0);
    setenv("APCARD_SELF", "0x04", 1);
    EXPECT_EQ(run_rvkctl({"hello", "--as", "58"}).status, 0);
    const std::vector<seen_command> seen = daemon.finish();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].sender & 0xFFFFFF00, 0x040A7F00u);
    EXPECT_NE(seen[0].sender & 0xFF, 0u);
    EXPECT_EQ(seen[0].slot, 3);
    EXPECT_EQ(seen[0].model, 0x1234);
    EXPECT_EQ(seen[0].addr, 0xFFFFFFFEu);
    EXPECT_EQ(seen[0].len, 2);
    EXPECT_EQ(seen[0].payload, (std::vector<uint8_t>{0x01, 0xA2}));
    EXPECT_NE(seen[0].seq, 0) << "0 is a report's";
    EXPECT_EQ(seen[1].sender, 0x040A3C00u);
    EXPECT_EQ(seen[1].len, 1400);
    EXPECT_TRUE(seen[1].payload.empty());
    EXPECT_EQ(seen[2].sender & 0xFFFFFF00, 0x040A3A00u);
}

TEST(Conversation, AFileTravelsInPiecesAndComesBack)
{
    const endpoint_folder folder;
    const std::string content = patterned(3000);
    std::ofstream(folder.file("in"), std::ios::binary) << content;
    for (const char* slot : {"2", "1"}) { // answered, and between greetings
        SCOPED_TRACE(slot);
        fake_daemon daemon;
        EXPECT_EQ(run_rvkctl({"write", slot, "0x1000", "--file", folder.file("in")}).status, 0);
        EXPECT_EQ(run_rvkctl({"read", slot, "0x1000", "1400", "--out", folder.file("out")}).status, 0);
        EXPECT_EQ(held_by(folder.file("out")), content.substr(0, 1400));
        std::vector<std::pair<uint32_t, size_t>> pieces;
        for (const seen_command& c : daemon.finish()) {
            if (c.code == acked) { pieces.emplace_back(c.addr, c.payload.size()); }
        }
        EXPECT_EQ(pieces, (std::vector<std::pair<uint32_t, size_t>>{{0x1000, 1400}, {0x1578, 1400}, {0x1AF0, 200}}));
        EXPECT_EQ(daemon.memory[0x1000 + 2999], static_cast<uint8_t>(content[2999]));
    }
}

TEST(Conversation, AFileThatFailsInTheMiddleSaysHowFarItCame)
{
    const endpoint_folder folder;
    std::ofstream(folder.file("in"), std::ios::binary) << patterned(3000);
    fake_daemon daemon({.result = -1, .good_answers = 1});
    const said ran = run_rvkctl({"write", "2", "0", "--file", folder.file("in"), "--json"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_NE(ran.err.find("at 0x00000578"), std::string::npos) << ran.err;
    EXPECT_NE(ran.err.find("the 1400 bytes before are written"), std::string::npos) << ran.err;
    EXPECT_EQ(nlohmann::json::parse(ran.out)["commands_confirmed"], 1);
    EXPECT_EQ(daemon.finish().size(), 2u) << "nothing is sent behind a failure";
}

TEST(Conversation, ADifferenceBehindTheFirstPieceIsPlaced)
{
    const endpoint_folder folder;
    std::ofstream(folder.file("in"), std::ios::binary) << patterned(3000);
    fake_daemon daemon({.spoilt = 0x1000 + 2999});
    const said ran = run_rvkctl({"write", "2", "0x1000", "--file", folder.file("in"), "--verify", "--json"});
    EXPECT_EQ(ran.status, 1);
    EXPECT_NE(ran.err.find("offset 2999 (0x00001bb7)"), std::string::npos) << ran.err;
    const auto object = nlohmann::json::parse(ran.out);
    EXPECT_EQ(object["error"]["kind"], "differs");
    EXPECT_EQ(object["first_difference"]["offset"], 2999);
}

TEST(Conversation, JsonSaysEverything)
{
    const endpoint_folder folder;
    fake_daemon daemon({.result = -1, .good_answers = 2});
    const auto wrote = nlohmann::json::parse(run_rvkctl({"write", "--json", "2", "0x10", "ab01"}).out);
    EXPECT_EQ(wrote["confirmed_by"], "reply");
    EXPECT_EQ(wrote["commands_confirmed"], 1);
    const auto good = nlohmann::json::parse(run_rvkctl({"--json", "read", "2", "0x10", "2"}).out);
    EXPECT_EQ(good["format_version"], 1);
    EXPECT_EQ(good["command"], "read");
    EXPECT_EQ(good["exit_status"], 0);
    EXPECT_EQ(good["exit_status_meaning"], "done");
    EXPECT_EQ(good["code_meaning"], "read");
    EXPECT_EQ(good["addr"], 0x10);
    EXPECT_EQ(good["result"], 0);
    EXPECT_EQ(good["result_meaning"], "success");
    EXPECT_EQ(good["data"], "ab01");
    EXPECT_EQ(good["socket"], folder.file("010a3b00.sock"));
    EXPECT_FALSE(good.contains("error"));
    const auto bad = nlohmann::json::parse(run_rvkctl({"--json", "read", "2", "0x10", "2"}).out);
    EXPECT_EQ(bad["exit_status"], 1);
    EXPECT_EQ(bad["result"], -1);
    EXPECT_EQ(bad["result_meaning"], "failure");
    EXPECT_EQ(bad["error"]["kind"], "refused");
    const auto hello = nlohmann::json::parse(run_rvkctl({"hello", "--json"}).out);
    EXPECT_EQ(hello["text"], "Hello, I am rvk module!");
    EXPECT_TRUE(hello["elapsed_ms"].is_number());
}
