// What the counters say of one request each, under one fault each: whoever reads them learns which side was at fault.
#include "base/counters.h"
#include "link/bench_link.h"
#include "link/requests.h"

using namespace rvk;

namespace {

using enum request_kind;

constexpr double always = 1.0;

struct figures {
    uint64_t sent, resends, given_up, refused, answers, checksum, length, foreign, unasked, unusable;
    bool operator==(const figures&) const = default;
};

figures figures_now()
{
    link_counters& c = link_count[0];
    return {c.frames_sent.get(),
            c.resends.get(),
            c.given_up.get(),
            c.wrong_acks.get(),
            c.answers.get(),
            c.dropped[drop::checksum].get(),
            c.dropped[drop::length].get(),
            c.dropped[drop::foreign].get(),
            c.dropped[drop::no_request].get(),
            c.dropped[drop::unusable].get()};
}

std::string difference(const figures& after, const figures& before)
{
    const auto text = [](const char* name, uint64_t now, uint64_t then) {
        return now == then ? std::string() : std::string(name) + " " + std::to_string(now - then) + " ";
    };
    return text("sent", after.sent, before.sent) + text("resends", after.resends, before.resends) +
           text("given up", after.given_up, before.given_up) + text("refused", after.refused, before.refused) +
           text("answers", after.answers, before.answers) + text("checksum", after.checksum, before.checksum) +
           text("length", after.length, before.length) + text("foreign", after.foreign, before.foreign) +
           text("unasked", after.unasked, before.unasked) + text("unusable", after.unusable, before.unusable);
}

const struct {
    const char* name;
    request_kind kind;
    card_faults faults;
    const char* counted;
} cases[] = {
    {"a good answer", reported_write, {}, "sent 1 answers 1 "},
    {"no answer", reported_write, {.loss = always}, "sent 3 resends 2 given up 1 "},
    {"refused twice", reported_write, {.wrong_ack = 2}, "sent 3 resends 2 refused 2 answers 3 "},
    {"refused without end",
     reported_read,
     {.wrong_read = always},
     "sent 1000 resends 999 given up 1 refused 1000 answers 1000 "},
    {"a corrupt answer", reported_read, {.corrupt = 1}, "sent 2 resends 1 answers 1 checksum 1 "},
    {"an answer that claims too much", reported_read, {.len_huge = 1}, "sent 2 resends 1 answers 1 length 1 "},
    {"an answer that says nothing", reported_read, {.read_says_none = 1}, "sent 2 resends 1 answers 2 unusable 1 "},
    {"no data, and waited for", waited_read, {.read_empty = 1}, "sent 1 answers 1 unusable 1 "},
    {"answered twice", waited_write, {.duplicate = 1}, "sent 1 answers 1 unasked 1 "},
    {"strangers in between", waited_read, {.foreign = 1, .runt = 1}, "sent 1 answers 1 foreign 2 "},
    {"refused, and waited for", waited_write, {.wrong_ack = 1}, "sent 1 refused 1 answers 1 "},
    {"no answer, and waited for", waited_read, {.loss = always}, "sent 1 given up 1 "},
    {"nobody waits", plain_write, {}, "sent 1 "},
};

class Counters : public LinkTest {};

} // namespace

TEST_F(Counters, TellWhoWasAtFault)
{
    uint32_t addr = 0x1000;
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        addr += 0x1000;
        farm.write(near_card, addr, pattern(addr, 100));
        farm.set_faults(row.faults);
        const figures before = figures_now();
        static_cast<void>(run_request(row.kind, addr, 100, 1));
        settle_down();
        figures after = figures_now();
        --after.sent; // settle_down asks once itself
        --after.answers;
        EXPECT_EQ(difference(after, before), row.counted);
    }
}

// A resend that is answered at once does not make a link that lost the first send look fast.
TEST_F(Counters, AnAnswerIsTimedFromItsFirstSend)
{
    const uint64_t sum = link_count[0].answer_time_us.get();
    farm.set_faults({.loss = 1});
    static_cast<void>(run_request(reported_write, 0x2000, 4));
    settle_down();
    EXPECT_EQ(frames_to(0x2000).size(), 2u);
    EXPECT_GE(link_count[0].answer_time_us.get() - sum, 40'000u);
}
