// The command line: what a person may say, and that what was wrong is named with its value.
#include "cardsim/options.h"

#include <gtest/gtest.h>

using namespace rvk;

namespace {

parsed_options parsed(std::vector<const char*> arguments)
{
    arguments.insert(arguments.begin(), "rvk-cardsim");
    return parse_options(static_cast<int>(arguments.size()), arguments.data());
}

struct how_case {
    const char* text;
    bool good;
    double part;
    uint64_t next;
};

const how_case hows[] = {
    {"3", true, 0, 3},    {"0", true, 0, 0},     {"0.05", true, 0.05, 0},
    {"1.0", true, 1, 0},  {"0.0", true, 0, 0},   {"1.5", false, 0, 0},
    {"-1", false, 0, 0},  {"-0.5", false, 0, 0}, {"", false, 0, 0},
    {"5%", false, 0, 0},  {"0.5x", false, 0, 0}, {".", false, 0, 0},
    {"1e3", false, 0, 0}, {"nan", false, 0, 0},  {"99999999999999999999", false, 0, 0},
};

struct wrong_case {
    std::vector<const char*> arguments;
    const char* named; // stands in the complaint, beside the value
};

const wrong_case wrongs[] = {
    {{"--loss", "1.5"}, "--loss: '1.5'"},
    {{"--wrong-status", "256"}, "--wrong-status: Value 256"},
    {{"--oversized-len", "1400"}, "--oversized-len: Value 1400"},
    {{"--generation", "256"}, "--generation: Value 256"},
    {{"--refuse-register", "8"}, "--refuse-register: Value 8"},
    {{"--status-bytes", "2001"}, "--status-bytes: Value 2001"},
    {{"--processor", "0"}, "--processor: Value 0"},
    {{"--link", "card0", "--link", "card0"}, "--link: the same interface"},
    {{"--loaded", "2:0:10x10"}, "--loaded: '2:0:10x10'"},
    {{"--loaded", "0:0x:10x10"}, "--loaded: '0:0x:10x10'"},
    {{"--loaded", "0:0:10x0"}, "--loaded: '0:0:10x0'"},
    {{"--loaded", "0:0:70000x1"}, "--loaded: '0:0:70000x1'"},
    {{"--loaded", "0:0:10x10x"}, "--loaded: '0:0:10x10x'"},
    {{"--frobnicate"}, "--frobnicate"},
    {{"card0"}, "card0"},
    {{"--seed", "x"}, "--seed = x"},
};

} // namespace

TEST(Options, HowOftenIsACountOrAPart)
{
    for (const how_case& c : hows) {
        SCOPED_TRACE(c.text);
        const auto how_often = parse_occurrence(c.text);
        ASSERT_EQ(how_often.has_value(), c.good);
        if (!c.good) { continue; }
        EXPECT_EQ(how_often->part, c.part);
        EXPECT_EQ(how_often->next, c.next);
    }
}

TEST(Options, ReachTheRecord)
{
    const auto all = parsed({"--link", "card1", "--link", "card2", "--state", "d", "--seed", "9", "--wrong-ack", "2",
                             "--wrong-status", "7", "--delay", "0.25", "--delay-ms", "400"});
    ASSERT_TRUE(all.given) << all.text;
    EXPECT_EQ(all.given->links, (std::vector<std::string>{"card1", "card2"}));
    EXPECT_EQ(all.given->state_folder, "d");
    EXPECT_EQ(all.given->faults.seed, 9u);
    EXPECT_EQ(all.given->faults.wrong_ack.next, 2u);
    EXPECT_EQ(all.given->faults.wrong_status, 7);
    EXPECT_EQ(all.given->faults.delay.part, 0.25);
    EXPECT_EQ(all.given->faults.delay_ms, 400u);
    const auto none = parsed({});
    ASSERT_TRUE(none.given);
    EXPECT_EQ(none.given->links, std::vector<std::string>{"card0"});
}

TEST(Options, OfLoadedPicturesAndBlocksReachTheirRecords)
{
    const auto all = parsed({"--loaded", "1:0x2000:1920x1080", "--loaded", "0:64:8x4", "--lvds-wrong-reads", "3",
                             "--bus-responds", "--bus-data-lie", "2"});
    ASSERT_TRUE(all.given) << all.text;
    ASSERT_EQ(all.given->loaded.size(), 2u);
    const loaded_picture &first = all.given->loaded[0], &second = all.given->loaded[1];
    EXPECT_EQ((std::vector<unsigned>{first.memory, first.addr, first.hor, first.ver}),
              (std::vector<unsigned>{1, 0x2000, 1920, 1080}));
    EXPECT_EQ((std::vector<unsigned>{second.memory, second.addr, second.hor, second.ver}),
              (std::vector<unsigned>{0, 64, 8, 4}));
    EXPECT_EQ(all.given->behaviour.lvds_wrong_reads, 3u);
    EXPECT_TRUE(all.given->behaviour.bus_responds);
    EXPECT_EQ(all.given->faults.bus_data_lie.next, 2u);
}

TEST(Options, OfRegistersReachTheirRecord)
{
    const auto manner = parsed({"--generation",
                                "49",
                                "--generation-bytes",
                                "1400",
                                "--readiness",
                                "255",
                                "--readiness-bytes",
                                "2",
                                "--readiness-silent",
                                "--status-bytes",
                                "3",
                                "--refuse-register",
                                "7",
                                "--refuse-register-times",
                                "2",
                                "--refuse-piece",
                                "5",
                                "--refuse-piece-times",
                                "3",
                                "--silent-piece",
                                "6"});
    ASSERT_TRUE(manner.given) << manner.text;
    const card_behaviour& b = manner.given->behaviour;
    EXPECT_EQ(b.generation, 49); // not the character '1'
    EXPECT_EQ(b.readiness, 0xFF);
    EXPECT_TRUE(b.readiness_silent);
    EXPECT_EQ((std::vector<unsigned>{b.generation_bytes, b.readiness_bytes, b.status_bytes}),
              (std::vector<unsigned>{1400, 2, 3}));
    EXPECT_EQ((std::vector<uint64_t>{b.refuse_register, b.refuse_register_times, b.refuse_piece, b.refuse_piece_times,
                                     b.silent_piece}),
              (std::vector<uint64_t>{7, 2, 5, 3, 6}));
}

TEST(Options, WrongOnesAreNamed)
{
    for (const wrong_case& c : wrongs) {
        SCOPED_TRACE(c.named);
        const auto result = parsed(c.arguments);
        EXPECT_FALSE(result.given);
        EXPECT_EQ(result.status, 2);
        EXPECT_NE(result.text.find(c.named), std::string::npos) << result.text;
    }
}

TEST(Options, HelpNamesEveryFault)
{
    const auto help = parsed({"--help"});
    EXPECT_EQ(help.status, 0);
    for (const fault_row& row : fault_table()) {
        EXPECT_NE(help.text.find("--" + std::string(row.name) + " "), std::string::npos) << row.name;
    }
}
