// A sender that gets no processor while its requests are answered: link threads and cards stand above it on the same
// one, so that most answers are dealt with before its send returns. Nothing may be lost, doubled or left over.
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/rt_thread.h"
#include "link/bench_link.h"
#include "link/injected_send.h"
#include "link/requests.h"

#include <map>
#include <thread>

using namespace rvk;

namespace {

using enum request_kind;

constexpr int link_processor = 1; // link 0's
constexpr int above_the_link = 95;
constexpr uint32_t first_addr = 0x100000, addr_step = 0x80;
constexpr size_t len = 100;

class StarvedSender : public LinkTest {
protected:
    void SetUp() override
    {
        LinkTest::SetUp();
        restart_cards({.processor = link_processor, .priority = above_the_link});
    }

    // Sends to `count` addresses, starved. Every one must be filed and sent.
    void send_all(request_kind kind, uint32_t count)
    {
        const uint64_t before = overtaken_sends;
        plan_sends({});
        std::thread sender([&] {
            ASSERT_EQ(pin_to_processor(link_processor), 0) << "needs two processors";
            for (uint32_t i = 0; i < count; ++i) {
                ASSERT_EQ(run_request(kind, first_addr + i * addr_step, len).result, 0) << i;
            }
        });
        sender.join();
        overtaken = overtaken_sends - before;
        settle_down();
    }
    uint64_t overtaken = 0;
};

std::map<uint32_t, int> frames_by_address(const std::vector<recorded_request>& history)
{
    std::map<uint32_t, int> frames;
    for (const recorded_request& request : history) {
        request_fields fields;
        if (check_request(request.frame, fields) == verdict::good) { ++frames[fields.addr]; }
    }
    return frames;
}

} // namespace

TEST_F(StarvedSender, LosesAndDoublesNoWrite)
{
    constexpr uint32_t count = 5000;
    farm.set_faults({.wrong_ack = 0.2, .duplicate = 0.1});
    send_all(reported_write, count);
    EXPECT_TRUE(take_messages().empty());
    const auto frames = frames_by_address(farm.history());
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t addr = first_addr + i * addr_step;
        ASSERT_EQ(farm.read(near_card, addr, len), pattern(addr, len)) << i;
        ASSERT_TRUE(frames.contains(addr));
    }
    EXPECT_EQ(frames.size(), count + 1u); // and the fence's
    EXPECT_GE(overtaken, count / 4) << "the sender was not starved: this run shows nothing";
}

TEST_F(StarvedSender, LosesAndDoublesNoRead)
{
    constexpr uint32_t count = 5000;
    farm.write(near_card, first_addr, pattern(first_addr, count * addr_step));
    farm.set_faults({.wrong_read = 0.2, .read_empty = 0.01, .duplicate = 0.1});
    send_all(reported_read, count);
    std::map<uint32_t, std::vector<collected_message>> heard;
    for (collected_message& m : take_messages()) {
        heard[load_le32(m.bytes.data() + message::addr)].push_back(std::move(m));
    }
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t addr = first_addr + i * addr_step;
        ASSERT_EQ(heard_about(addr, heard[addr]), "data") << i;
    }
    EXPECT_EQ(heard.size(), count);
    EXPECT_GE(overtaken, count / 4) << "the sender was not starved: this run shows nothing";
}
