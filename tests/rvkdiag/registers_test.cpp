// Peek and poke on every link: what the cards see, byte for byte, and what a person is told of each end.
#include "rvkdiag/three_links.h"

#include <algorithm>

using namespace rvk;

namespace {

constexpr uint32_t addr = 0x1000000; // plain memory
constexpr card_id card{3, 2};
constexpr double always = 1.0;
constexpr size_t frame_max = 1400;

struct write_kind {
    const char* name;
    uint8_t code;
    bool numbered; // frames carry sequence numbers
    const char* says;
};
const write_kind write_kinds[] = {
    {"write", 0x01, false, ": sent, the card is not asked"},
    {"writea", 0x11, true, ": acknowledged"},
    {"writeaw", 0x11, true, ": acknowledged"},
};

std::vector<seen> frames_of(const write_kind& kind, const std::vector<uint8_t>& bytes)
{
    std::vector<seen> out;
    for (size_t at = 0; at < bytes.size(); at += frame_max) {
        const size_t end = std::min(at + frame_max, bytes.size());
        out.push_back({kind.code,
                       card.model,
                       card.slot,
                       static_cast<uint16_t>(kind.numbered ? out.size() : 0),
                       static_cast<uint32_t>(addr + at),
                       static_cast<uint16_t>(end - at),
                       {bytes.begin() + static_cast<ptrdiff_t>(at), bytes.begin() + static_cast<ptrdiff_t>(end)}});
    }
    return out;
}

const struct end_case {
    const char* kind;
    card_faults faults;
    int status;
    size_t frames;
    const char* says; // in the error, or in the answer
} ends[] = {
    {"readw", {.wrong_read = 1}, 1, 1, "the card refused with status 0x02"},
    {"readw", {.read_empty = 1}, 1, 1, "without usable data"},
    {"readw", {.read_oversized = 1}, 1, 1, "without usable data"},
    {"readw", {.loss = always}, 3, 1, "no answer; check"},
    {"read", {.wrong_read = 2}, 0, 3, "00010203"},
    {"read", {.wrong_read = always}, 1, 1000, "the card refused"},
    {"read", {.loss = 1}, 0, 2, "00010203"},
    {"read", {.loss = always}, 3, 3, "sent three times: no answer"},
    {"write", {.loss = always}, 0, 1, "the card is not asked"},
    {"writea", {.wrong_ack = 2}, 0, 3, ": acknowledged"},
    {"writea", {.wrong_ack = always}, 1, 1000, "1 of 1 frames given up, the lowest at 0x01000000: the card refused"},
    {"writea", {.loss = 1}, 0, 2, ": acknowledged"},
    {"writea", {.loss = always}, 3, 3, "1 of 1 frames given up, the lowest at 0x01000000: no answer to three sends"},
    {"writeaw", {.wrong_ack = 1}, 1, 1, "the card refused with status 0x02"},
    {"writeaw", {.loss = always}, 3, 1, "no answer; check"},
};

class Registers : public ThreeLinks {
protected:
    said access(size_t link, const std::string& kind, const std::string& last) const
    {
        return run({"fpga", std::to_string(link), kind, "3", "2", "1000000", last});
    }
};

} // namespace

TEST_F(Registers, WritesArriveByteForByteOnEveryLink)
{
    const std::vector<uint8_t> value{0x01, 0x02, 0x03, 0xFF}, file = numbered(3000, 7);
    write_bytes(folder / "table.bin", file);
    for (const write_kind& kind : write_kinds) {
        for (size_t link = 0; link < farms.size(); ++link) {
            for (const bool from_file : {false, true}) {
                SCOPED_TRACE(kind.name + std::to_string(link) + (from_file ? " file" : " value"));
                forget();
                const said ran = access(link, kind.name, from_file ? folder / "table.bin" : "0102 03fF");
                EXPECT_EQ(ran.status, 0) << ran.err;
                EXPECT_NE(ran.out.find(kind.says), std::string::npos) << ran.out;
                const auto expected = frames_of(kind, from_file ? file : value);
                EXPECT_EQ(requests(link, expected.size()), expected);
                for (size_t other = 0; other < farms.size(); ++other) {
                    if (other != link) { EXPECT_EQ(requests(other, 0).size(), 0u) << other; }
                }
            }
        }
    }
}

TEST_F(Registers, ReadsShowWhatTheCardHolds)
{
    static constexpr struct {
        const char* len;
        uint16_t bytes;
        const char* shows;
    } rows[] = {{"3", 3, "\n01000000: 000102\n"},
                {"6", 6, "\n01000000: 00010203 0405\n"},
                {"14", 20, "\n01000000: 00010203 04050607 08090a0b 0c0d0e0f \n01000010: 10111213 \n"},
                {"578", 1400, nullptr}};
    for (size_t link = 0; link < farms.size(); ++link) {
        farms[link].write(card, addr, numbered(frame_max));
        for (const char* kind : {"read", "readw"}) {
            for (const auto& row : rows) {
                SCOPED_TRACE(std::string(kind) + std::to_string(link) + " " + row.len);
                forget();
                const said ran = access(link, kind, row.len);
                EXPECT_EQ(ran.status, 0) << ran.err;
                if (row.shows != nullptr) { EXPECT_EQ(ran.out, row.shows); }
                EXPECT_EQ(std::count(ran.out.begin(), ran.out.end(), ':'), (row.bytes + 15) / 16);
                EXPECT_EQ(requests(link, 1), (std::vector<seen>{{0, card.model, card.slot, 0, addr, row.bytes, {}}}));
            }
        }
    }
}

// Every end that a card can give an operation: the exit status, the frames that it cost, and the words for it.
TEST_F(Registers, EveryEndIsToldFromTheOthers)
{
    farms[1].write(card, addr, numbered(4));
    for (const end_case& row : ends) {
        SCOPED_TRACE(std::string(row.kind) + ": " + row.says);
        forget();
        farms[1].set_faults(row.faults);
        const bool reads = row.kind[0] == 'r';
        const said ran = access(1, row.kind, reads ? "4" : "00010203");
        EXPECT_EQ(ran.status, row.status) << ran.err;
        EXPECT_NE((row.status == 0 ? ran.out : ran.err).find(row.says), std::string::npos) << ran.out << ran.err;
        EXPECT_EQ(requests(1, row.frames).size(), row.frames);
        if (row.status == 3) { EXPECT_EQ(ran.out, reads ? "\n01000000: \n" : ""); }
    }
}

// As a register block does that ends before what was asked for.
TEST_F(Registers, AnAnswerThatIsTooShortIsNotDone)
{
    farms[1].set_behaviour({.readiness = uint8_t{7}, .readiness_bytes = 2});
    for (const char* kind : {"read", "readw"}) {
        const said ran = run({"fpga", "1", kind, "0", "1", "f00009", "4"});
        EXPECT_EQ(ran.status, 1);
        EXPECT_EQ(ran.out, "\n00f00009: 07a5\n");
        EXPECT_NE(ran.err.find("the card sent only 2 bytes"), std::string::npos) << ran.err;
    }
}

// A long write ends at its first frame that fails when each is waited for, and says how many failed when none is.
TEST_F(Registers, ALongWriteSaysWhereItFailed)
{
    write_bytes(folder / "table.bin", numbered(3000));
    farms[2].set_faults({.loss = always});
    const said waited = access(2, "writeaw", folder / "table.bin");
    EXPECT_EQ(waited.status, 3);
    EXPECT_EQ(requests(2, 1).size(), 1u);
    const said reported = access(2, "writea", folder / "table.bin");
    EXPECT_EQ(reported.status, 3);
    EXPECT_NE(reported.err.find("3 of 3 frames given up, the lowest at 0x01000000"), std::string::npos) << reported.err;
    EXPECT_EQ(requests(2, 10).size(), 10u);
    forget();
    farms[2].set_faults({.loss = 1}); // the first is lost, and all others of its kind are good
    const said ran = access(2, "writeaw", folder / "table.bin");
    EXPECT_EQ(ran.status, 3);
    EXPECT_EQ(requests(2, 1).size(), 1u) << "the rest is not sent";
}
