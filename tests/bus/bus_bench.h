// The block link on the bench: its three links opened once per program, simulated cards at the far end of link 0, and
// the words in which the link reports. Every test ends with the semaphore free, and a failing one leaves its last
// frames as <suite>.<test>.pcap in the working directory, below build/.
#pragma once

#include "cardsim/link.h"
#include "eth_raw/bus_block.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace rvk {

inline constexpr uint32_t block_addr = 0x1000000;

// Content in which no two packets are alike.
[[nodiscard]] std::vector<uint8_t> content(size_t length, uint32_t seed = 1);

// Waits for a condition, at most 20 s. Result: it held.
[[nodiscard]] bool soon(const std::function<bool()>& condition);

// Lines "operation:NUMBER:text" logged since the last take_log().
[[nodiscard]] size_t reported(const std::string& operation, const std::string& text);

// Runs a command of the system's; a test that needs it fails without.
void run_command(const std::string& line);

class BusTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    void start_cards(const card_faults& faults = {}, const link_options& how = {});

    // How long a receive on link 0 waits: 5,000 at each test's start.
    void wait_for_answers(unsigned ms);

    // The packets that the cards were sent, oldest first.
    [[nodiscard]] std::vector<std::vector<uint8_t>> packets() const;

    [[nodiscard]] static int semaphore_value(); // -1: there is none

    std::array<xfer, bus_links> links{};
    card_farm farm;
    card_link cards{farm};
};

} // namespace rvk
