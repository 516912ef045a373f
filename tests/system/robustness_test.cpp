// Requesters that send rubbish, send too much, or do not read: the daemon serves everybody else all the same.
#include "system/daemon.h"

#include "base/bytes.h"
#include "cardsim/link.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>
#include <random>

using namespace rvk;

namespace {

// Bytes that the endpoint lets pass, since they begin with their sender's identity (where they are long enough).
std::vector<uint8_t> garbage(std::mt19937& dice, size_t size, uint32_t sender)
{
    std::vector<uint8_t> out(size);
    for (uint8_t& byte : out) { byte = static_cast<uint8_t>(dice()); }
    if (size >= 4) { store_le32(out.data(), sender); }
    return out;
}

// Makes it a command that is dispatched; no file job, whose work and answer are another matter.
void make_command(std::mt19937& dice, std::vector<uint8_t>& message)
{
    if (message.size() < message_head_bytes) { return; }
    store_le16(message.data() + message::msg_type, static_cast<uint16_t>(dice() % 2));
    store_le16(message.data() + message::msg_class, static_cast<uint16_t>(data_class));
    const uint8_t codes[] = {command::write, command::write_ack, command::greeting, 0x33, command::read};
    message[message::code] = codes[dice() % std::size(codes)];
    if (dice() % 2 == 0) { // a length that is not far off
        const size_t there = message.size() - message::payload;
        store_le16(message.data() + message::len, static_cast<uint16_t>(there + dice() % 3 - 1));
    }
}

} // namespace

TEST(Robustness, NoMessageWhateverItHoldsEndsTheDaemon)
{
    card_farm farm;
    card_link cards(farm);
    ASSERT_EQ(cards.start(), "");
    daemon_process d;
    std::mt19937 dice(20);
    const size_t sizes[] = {0, 1, 3, 4, 5, 16, 23, 24, 37, 38, 39, 40, 41, 1000, 1438, 1440, 1441, 65574, 65575};
    for (int round = 0; round < 12; ++round) {
        conversation requester;
        for (const size_t listed : sizes) {
            SCOPED_TRACE(listed);
            const size_t size = round < 2 ? listed : dice() % 3000;
            std::vector<uint8_t> message = garbage(dice, size, requester.identity());
            if (round % 2 == 1) { make_command(dice, message); }
            requester.tell(message);
            static_cast<void>(d.shows("", milliseconds{0}));
        }
        std::vector<uint8_t> liar = requester.pack({.code = command::greeting});
        store_le32(liar.data(), identity_of_companion);
        requester.tell(liar);
        requester.tell({.code = command::greeting, .seq = 1});
        // Its answer is the last to come; what else is answered is up to the dice.
        const bool served = comes_true([&] {
            static_cast<void>(d.shows("nothing of the kind", milliseconds{1}));
            conversation other;
            return other.is_greeted(milliseconds{100});
        });
        ASSERT_TRUE(served) << "round " << round;
    }
    EXPECT_EQ(d.end_by(SIGTERM), 0);
    EXPECT_EQ(farm.counts().refusals(), "none") << "whatever reached the cards was a good frame";
}

TEST(Robustness, EverybodyGetsItsOwnAnswersInAFlood)
{
    constexpr int requesters = 6, rounds = 20, commands = 25;
    card_farm farm;
    card_link cards(farm);
    ASSERT_EQ(cards.start(), "");
    daemon_process d;
    std::vector<std::unique_ptr<conversation>> all;
    for (int i = 0; i < requesters; ++i) { all.push_back(std::make_unique<conversation>()); }
    ASSERT_TRUE(all[0]->is_greeted());
    for (int round = 0; round < rounds; ++round) {
        for (int n = 0; n < commands; ++n) {
            for (auto& r : all) {
                const auto seq = static_cast<uint16_t>(round * commands + n);
                const bool reads = n % 2 == 0;
                r->tell({.code = reads ? command::read : command::write_ack,
                         .slot = 3,
                         .addr = r->identity(), // so that an answer to another would show
                         .payload = reads ? std::vector<uint8_t>{} : std::vector<uint8_t>(64, 7),
                         .len = 64,
                         .seq = seq});
            }
        }
        for (auto& r : all) {
            for (int n = 0; n < commands; ++n) {
                const std::vector<uint8_t> answer = r->receive(patience);
                ASSERT_EQ(result_of(answer), 0);
                ASSERT_EQ(load_le16(answer.data() + message::seq), round * commands + n);
                ASSERT_EQ(load_le32(answer.data() + message::addr), r->identity());
            }
        }
    }
    EXPECT_EQ(d.end_by(SIGTERM), 0);
}

TEST(Robustness, OneThatNeverReadsKeepsNobodyFromItsAnswers)
{
    daemon_process d;
    conversation deaf, other;
    ASSERT_TRUE(other.is_greeted());
    const std::vector<uint8_t> greeting = deaf.pack({.code = command::greeting});
    for (int i = 0; i < 6000; ++i) { deaf.tell(greeting); } // more than its queue takes
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(other.is_greeted());
        deaf.tell(greeting);
    }
    EXPECT_EQ(d.end_by(SIGTERM), 0);
}
