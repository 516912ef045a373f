// Bad cards: each fault does what its line says and nothing else, and a seed brings the same ones again.
#include "cardsim/cards.h"
#include "cardsim/requests.h"
#include "eth_raw/frame.h"

#include <gtest/gtest.h>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;
constexpr card_id card{0, 1};

std::string seen(const std::vector<reply_frame>& frames)
{
    std::string text;
    for (const reply_frame& f : frames) { text += (text.empty() ? "" : " ") + as_seen(f.view()); }
    return text;
}

bytes acknowledged(uint16_t seq) { return write_frame({.code = code_write_ack, .seq = seq}, bytes{0x77}); }
bytes reading(uint16_t seq) { return read_frame({.code = code_read, .seq = seq}, 40); }

struct fault_case {
    const char* name;
    card_faults faults;
    const char* write_seen; // what comes back to an acknowledged write of one byte, within a second
    bool written;
    const char* read_seen; // what comes back to a read of 40 bytes
};

const fault_case cases[] = {
    {"none", {}, "11/0/0", true, "00/0/40"},
    {"loss", {.loss = 1.0}, "", false, ""},
    {"wrong_ack", {.wrong_ack = 1.0, .wrong_status = 5}, "11/5/0", false, "00/0/40"},
    {"wrong_read", {.wrong_read = 1.0}, "11/0/0", true, "00/2/0"},
    {"read_says_none", {.read_says_none = 1.0}, "11/0/0", true, "00/255/40"},
    {"read_empty", {.read_empty = 1.0}, "11/0/0", true, "00/0/0"},
    {"read_oversized", {.read_oversized = 1.0, .oversized_len = 1419}, "11/0/0", true, "00/0/1419"},
    {"ack_code_short", {.ack_code_short = 1.0}, "10/0/0", true, "00/0/40"},
    {"len_past_end", {.len_past_end = 1.0}, "-", true, "-"},
    {"len_huge", {.len_huge = 1.0}, "-", true, "-"},
    {"len_short", {.len_short = 1.0}, "11/0/0", true, "-"},
    {"corrupt", {.corrupt = 1.0}, "-", true, "-"},
    {"trailing", {.trailing = 1.0}, "-", true, "-"},
    {"foreign", {.foreign = 1.0}, "- 11/0/0", true, "- 00/0/40"},
    {"runt", {.runt = 1.0}, "- 11/0/0", true, "- 00/0/40"},
    {"reply_loss", {.reply_loss = 1.0}, "", true, ""},
    {"duplicate", {.duplicate = 1.0}, "11/0/0 11/0/0", true, "00/0/40 00/0/40"},
    {"duplicates, delayed", {.duplicate = 1.0, .delay = 1.0}, "11/0/0 11/0/0", true, "00/0/40 00/0/40"},
    {"reorder, with none to come", {.reorder = 1.0}, "11/0/0", true, "00/0/40"},
};

// Everything that comes back within a second.
std::string exchange(const card_faults& faults, const bytes& frame, card_farm& farm)
{
    farm.set_faults(faults);
    std::vector<reply_frame> out;
    farm.request(frame, 0, out);
    farm.due(1'000'000, out);
    EXPECT_FALSE(farm.next_due_us());
    return seen(out);
}

// Replies to requests 0 to n - 1 at 10 ms each, whatever is still held back then included.
std::vector<bytes> conversation(const card_faults& faults, uint16_t n)
{
    card_farm farm(faults);
    std::vector<reply_frame> out;
    for (uint16_t i = 0; i < n; ++i) { farm.request(i % 3 == 0 ? reading(i) : acknowledged(i), i * 10'000u, out); }
    farm.due(1'000'000'000, out);
    std::vector<bytes> frames;
    for (const reply_frame& f : out) { frames.emplace_back(f.view().begin(), f.view().end()); }
    return frames;
}

} // namespace

TEST(Faults, DoWhatTheirLineSays)
{
    const bytes preset(1419, 0x11); // not zero: a lie about len must show in the checksum
    for (const fault_case& c : cases) {
        SCOPED_TRACE(c.name);
        card_farm writing, giving;
        EXPECT_EQ(exchange(c.faults, acknowledged(3), writing), c.write_seen);
        EXPECT_EQ(writing.read(card, 0x1000, 1)[0], c.written ? 0x77 : 0);
        giving.write(card, 0x1000, preset);
        EXPECT_EQ(exchange(c.faults, reading(4), giving), c.read_seen);
    }
}

TEST(Faults, TheSameSeedBringsTheSameAgain)
{
    const card_faults faults{.seed = 42,
                             .loss = 0.1,
                             .wrong_ack = 0.1,
                             .read_says_none = 0.1,
                             .len_huge = 0.05,
                             .corrupt = 0.1,
                             .trailing = 0.1,
                             .foreign = 0.1,
                             .runt = 0.1,
                             .reply_loss = 0.1,
                             .duplicate = 0.1,
                             .delay = 0.1,
                             .reorder = 0.1};
    const auto first = conversation(faults, 1000);
    EXPECT_EQ(first, conversation(faults, 1000));
    card_faults other = faults;
    other.seed = 43;
    EXPECT_NE(first, conversation(other, 1000));
}

TEST(Faults, ALateAnswerComesWhenItIsDue)
{
    card_farm farm({.delay = 1, .delay_ms = 120});
    std::vector<reply_frame> out;
    farm.request(acknowledged(1), 1'000, out);
    farm.request(acknowledged(2), 2'000, out); // not late, and not held up by the one before it
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(farm.next_due_us(), 121'000u);
    farm.due(120'999, out);
    EXPECT_EQ(out.size(), 1u);
    farm.request(reading(3), 121'000, out); // whatever is due goes out first
    EXPECT_EQ(seen(out), "11/0/0 11/0/0 00/0/40");
    EXPECT_EQ(out[1].bytes[reply::seq], 1);
    EXPECT_FALSE(farm.next_due_us());
}

TEST(Faults, ReorderedAnswersComeBehindTheNext)
{
    card_farm farm({.reorder = 1});
    std::vector<reply_frame> out;
    for (uint16_t i = 1; i <= 3; ++i) { farm.request(acknowledged(i), i, out); }
    ASSERT_EQ(out.size(), 3u);
    EXPECT_EQ(out[0].bytes[reply::seq], 2);
    EXPECT_EQ(out[1].bytes[reply::seq], 1);
    EXPECT_EQ(out[2].bytes[reply::seq], 3);
}
