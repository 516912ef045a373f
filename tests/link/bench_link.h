// Link 0 with its two real threads, and simulated cards at its far end, in one process: what every link test stands on.
//
// The threads start with the first test of a program and run to its end; cards and their memory are each test's own. A
// test that ends with requests pending or blocks not given back fails, and a failing one leaves its last frames as
// <suite>.<test>.pcap in the working directory, below build/.
#pragma once

#include "cardsim/link.h"
#include "mem/mem.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <functional>
#include <pthread.h>
#include <vector>

namespace rvk {

inline constexpr card_id near_card{0, 1};

[[nodiscard]] uint64_t now_us();

// Waits for a condition. Result: it held before the time was over.
[[nodiscard]] bool soon(const std::function<bool()>& condition, uint64_t bound_ms = 20'000);

// Content that tells where it belongs: never 0, no two neighbouring addresses alike.
[[nodiscard]] std::vector<uint8_t> pattern(uint32_t addr, size_t len);

[[nodiscard]] std::array<int32_t, mem_classes> blocks_in_use();

// Requests pending on link 0, all queues.
[[nodiscard]] int32_t pending();

// Waits until an interface's both ends have their carrier: a veth drops frames silently until then.
[[nodiscard]] bool has_carrier(const char* interface);

struct sent_frame {
    uint64_t time_us;
    request_fields fields; // `data` is not kept
    bool lost;
};

class LinkTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts the cards anew, elsewhere or otherwise.
    void restart_cards(const link_options& options);

    // All frames of the controller since the test's start to this address, oldest first.
    [[nodiscard]] std::vector<sent_frame> frames_to(uint32_t addr);

    // Waits until every request is over and every answer, however late, has been looked at; ends all faults.
    void settle_down();

    [[nodiscard]] static pthread_t receive_thread();

    card_farm farm;
    card_link cards{farm};

private:
    std::array<int32_t, mem_classes> blocks_before{};
};

} // namespace rvk
