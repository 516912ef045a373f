#include "bus/bus_bench.h"

#include "base/pause.h"
#include "eth_raw/bus_packet.h"
#include "eth_raw/bus_semaphore.h"
#include "support/log_capture.h"

#include <cstdlib>
#include <sys/sem.h>
#include <sys/socket.h>
#include <sys/time.h>

namespace rvk {
namespace {

std::array<xfer, bus_links> opened;

} // namespace

std::vector<uint8_t> content(size_t length, uint32_t seed)
{
    std::vector<uint8_t> data(length);
    for (uint8_t& b : data) {
        seed = seed * 1664525 + 1013904223;
        b = static_cast<uint8_t>(seed >> 24);
    }
    return data;
}

bool soon(const std::function<bool()>& condition)
{
    for (int i = 0; i < 20'000; ++i) {
        if (condition()) { return true; }
        pause_ms(1);
    }
    return false;
}

size_t reported(const std::string& operation, const std::string& text)
{
    size_t count = 0;
    const std::string all = log_text();
    for (size_t at = 0; at < all.size();) {
        const size_t end = std::min(all.find('\n', at), all.size());
        const std::string line = all.substr(at, end - at);
        const size_t number = operation.size() + 1, colon = line.find(':', number);
        count += line.starts_with(operation + ":") && colon != std::string::npos && colon > number &&
                 line.find_first_not_of("0123456789", number) == colon && line.substr(colon + 1) == text;
        at = end + 1;
    }
    return count;
}

void run_command(const std::string& line) { ASSERT_EQ(std::system(line.c_str()), 0) << line; }

void BusTest::SetUp()
{
    if (opened[0].sll == nullptr) { ASSERT_EQ(Open_Eth_Raw(opened.data(), bus_links), 0) << log_text(); }
    links = opened;
    if (semaphore_value() < 0) { ASSERT_EQ(open_semaphore(), 0); }
    ASSERT_EQ(semaphore_value(), 1);
    std::array<uint8_t, bus_packet_max> left_over;
    for (const xfer& link : links) {
        while (recv(link.sock_fd, left_over.data(), left_over.size(), MSG_DONTWAIT) > 0) {}
    }
    wait_for_answers(5000);
    take_log();
}

void BusTest::TearDown()
{
    cards.stop();
    if (!HasFailure()) { return; }
    const auto* const test = testing::UnitTest::GetInstance()->current_test_info();
    EXPECT_EQ(farm.write_pcap(std::string(test->test_suite_name()) + '.' + test->name() + ".pcap"), "");
}

void BusTest::start_cards(const card_faults& faults, const link_options& how)
{
    farm.set_faults(faults);
    farm.record_history(1000);
    farm.keep_trail(100);
    ASSERT_EQ(cards.start(how), "");
}

void BusTest::wait_for_answers(unsigned ms)
{
    const timeval patience{.tv_sec = ms / 1000, .tv_usec = static_cast<suseconds_t>(ms % 1000) * 1000};
    ASSERT_EQ(setsockopt(links[0].sock_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience), 0);
}

std::vector<std::vector<uint8_t>> BusTest::packets() const
{
    std::vector<std::vector<uint8_t>> all;
    for (const recorded_request& r : farm.history()) { all.push_back(r.frame); }
    return all;
}

int BusTest::semaphore_value()
{
    const int id = semget(bus_semaphore_key, 1, 0);
    return id < 0 ? -1 : semctl(id, 0, GETVAL);
}

} // namespace rvk
