// A sender that gets no processor while its requests are answered: link threads and cards stand above it on the same
// one, so that most answers are dealt with before its send returns. Nothing may be lost, doubled or left over.
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/pause.h"
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
constexpr uint32_t at_least = 5000, at_most = 50'000;
constexpr uint64_t enough = 1000;
constexpr int32_t in_flight_max = 50; // the kernel drops what waits in a busy processor's queue beyond 1,000 frames

class StarvedSender : public LinkTest {
protected:
    void SetUp() override
    {
        LinkTest::SetUp();
        restart_cards({.processor = link_processor, .priority = above_the_link});
    }

    // Sends to one address after the other, starved, until enough sends were overtaken by their answers: on a loaded
    // machine the kernel may leave it at few. Every request must be filed and sent. Result: how many were.
    uint32_t send_all(request_kind kind)
    {
        const uint64_t before = overtaken_sends;
        plan_sends({});
        uint32_t sent = 0;
        std::thread sender([&] {
            ASSERT_EQ(pin_to_processor(link_processor), 0) << "needs two processors";
            for (; sent < at_least || (sent < at_most && overtaken_sends - before < enough); ++sent) {
                while (pending() > in_flight_max) { pause_ms(1); }
                ASSERT_EQ(run_request(kind, first_addr + sent * addr_step, len).result, 0) << sent;
            }
        });
        sender.join();
        EXPECT_GE(overtaken_sends - before, enough) << "the sender was not starved: this run shows nothing";
        settle_down();
        return sent;
    }
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
    farm.set_faults({.wrong_ack = 0.2, .duplicate = 0.1});
    const uint32_t count = send_all(reported_write);
    EXPECT_TRUE(take_messages().empty());
    const auto frames = frames_by_address(farm.history());
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t addr = first_addr + i * addr_step;
        ASSERT_EQ(farm.read(near_card, addr, len), pattern(addr, len)) << i;
        ASSERT_TRUE(frames.contains(addr));
    }
    EXPECT_EQ(frames.size(), count + 1u); // and the fence's
}

TEST_F(StarvedSender, LosesAndDoublesNoRead)
{
    farm.write(near_card, first_addr, pattern(first_addr, at_most * addr_step));
    farm.set_faults({.wrong_read = 0.2, .read_empty = 0.01, .duplicate = 0.1});
    const uint32_t count = send_all(reported_read);
    std::map<uint32_t, std::vector<collected_message>> heard;
    for (collected_message& m : take_messages()) {
        heard[load_le32(m.bytes.data() + message::addr)].push_back(std::move(m));
    }
    for (uint32_t i = 0; i < count; ++i) {
        const uint32_t addr = first_addr + i * addr_step;
        ASSERT_EQ(heard_about(addr, heard[addr]), "data") << i;
    }
    EXPECT_EQ(heard.size(), count);
}
