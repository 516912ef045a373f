// Cards that answer wrongly: what is believed, how often it is tried again, and what the log says of it.
#include "bus/bus_bench.h"
#include "support/log_capture.h"

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;
constexpr uint32_t length = 100;

class Answers : public BusTest {
protected:
    // Reads the card's 100 bytes into `into`, which was 0xEE before.
    int32_t read()
    {
        farm.write_bus(block_addr, content(length));
        into.assign(length, 0xEE);
        return Read_FPGA_Bus_Block(&links[0], block_addr, length, into.data());
    }
    bytes into;
};

struct wrong_answer {
    const char* name;
    occurrence card_faults::*fault;
};

// Each is rejected, and the next answer is waited for.
const wrong_answer wrongs[] = {
    {"half of the data, and says so", &card_faults::bus_data_short},
    {"half of the data, and says it is all", &card_faults::bus_data_lie},
    {"says it is longer than it is", &card_faults::bus_length_lie},
    {"another type", &card_faults::bus_wrong_type},
    {"another address", &card_faults::bus_wrong_addr},
    {"sent to somebody else", &card_faults::bus_wrong_dest},
    {"a wrong sum", &card_faults::corrupt},
};

} // namespace

TEST_F(Answers, AWrongOneIsRejectedAndTheReadRepeated)
{
    start_cards();
    wait_for_answers(20);
    for (const wrong_answer& w : wrongs) {
        SCOPED_TRACE(w.name);
        farm.record_history(1000);
        card_faults once;
        once.*w.fault = 1;
        farm.set_faults(once);
        EXPECT_EQ(read(), 0) << log_text();
        EXPECT_EQ(into, content(length));
        EXPECT_GE(packets().size(), 2u); // one answer to a request: a second one was asked for
        EXPECT_GE(reported("recv_read_back_message_func", "recv_message_func_unit() failed(ret = -1)."), 10u);
        EXPECT_EQ(reported("read_process_func", "recv_read_back_message_func() failed."), packets().size() - 1);
        EXPECT_EQ(reported("Read_FPGA_Bus_Block", "read_process_func() failed."), 0u);
        take_log();
    }
}

TEST_F(Answers, AllWrongOnesEndAReadBehindTenTimesTen)
{
    start_cards();
    wait_for_answers(2);
    for (const wrong_answer& w : wrongs) {
        SCOPED_TRACE(w.name);
        farm.record_history(1000);
        card_faults always;
        always.*w.fault = 1.0;
        farm.set_faults(always);
        EXPECT_EQ(read(), -1);
        EXPECT_EQ(into, bytes(length, 0xEE));
        ASSERT_TRUE(soon([&] { return packets().size() >= 10; }));
        EXPECT_EQ(packets().size(), 10u);
        EXPECT_EQ(reported("recv_read_back_message_func", "recv_message_func_unit() failed(ret = -1)."), 100u);
        EXPECT_EQ(reported("read_process_func", "recv_read_back_message_func() failed."), 10u);
        EXPECT_EQ(reported("Read_FPGA_Bus_Block", "read_process_func() failed."), 1u);
        take_log();
    }
}

TEST_F(Answers, NoneIsAsMany)
{
    start_cards({.loss = 1.0});
    wait_for_answers(2);
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(reported("recv_read_back_message_func", "recv_message_func_unit() failed(ret = -1)."), 100u);
    EXPECT_EQ(reported("Read_FPGA_Bus_Block", "read_process_func() failed."), 1u);
}

// No second answer is waited for; a whole new attempt is made.
TEST_F(Answers, ARefusalEndsTheAttemptAtOnce)
{
    start_cards({.bus_refused = 1.0, .wrong_status = 5});
    EXPECT_EQ(read(), -1);
    EXPECT_EQ(packets().size(), 10u);
    EXPECT_EQ(reported("recv_message_func_unit", "read back failed, ACK flag = 5."), 10u) << log_text();
    EXPECT_EQ(logged("recv_message_func_unit() failed"), 0u);
    EXPECT_EQ(logged("recv_read_back_message_func() failed"), 0u);
    EXPECT_EQ(reported("Read_FPGA_Bus_Block", "read_process_func() failed."), 1u);
    farm.set_faults({.bus_refused = 9});
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(into, content(length));
}

TEST_F(Answers, AGoodResponseInPlaceOfDataEndsThePieceWithoutAny)
{
    start_cards({.bus_no_data = 1.0});
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(into, bytes(length, 0xEE));
    EXPECT_EQ(packets().size(), 1u);
    EXPECT_EQ(log_text(), "");
}

// The rest of an answer behind its own end is not looked at.
TEST_F(Answers, BytesBehindAnAnswerDoNoHarm)
{
    start_cards({.trailing = 1.0});
    EXPECT_EQ(read(), 0);
    EXPECT_EQ(into, content(length));
}

TEST_F(Answers, ResponsesAreTakenByWhoeverWaitsForThem)
{
    start_cards();
    farm.set_behaviour({.bus_responds = true});
    const bytes data = content(length);
    ASSERT_EQ(write_process_func(&links[0], block_addr, length, data.data()), 0);
    EXPECT_EQ(recv_response_message_func(&links[0], block_addr, length), 0);
    ASSERT_EQ(send_request_message_func(&links[0], block_addr, length), 0);
    EXPECT_EQ(recv_response_message_func(&links[0], block_addr, length), -1); // data is no response
    ASSERT_EQ(send_request_message_func(&links[0], block_addr, length), 0);
    EXPECT_EQ(recv_message_func_unit(&links[0], block_addr, length, nullptr, 0), 0); // of a kind that takes nothing
    farm.set_faults({.bus_refused = 1, .wrong_status = 7});
    ASSERT_EQ(send_request_message_func(&links[0], block_addr, length), 0);
    EXPECT_EQ(recv_response_message_func(&links[0], block_addr, length), -1);
    EXPECT_EQ(reported("recv_message_func_unit", "failed, ACK flag = 7."), 1u) << log_text();
}
