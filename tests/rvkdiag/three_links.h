// Simulated cards at the far ends of all three links, and the bench tool as a program of its own at the near ones.
#pragma once

#include "cardsim/link.h"
#include "system/daemon.h"

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace rvk {

struct said {
    int status;
    std::string out, err;
};

// A request as a card saw it, `len` bytes of data in a write.
struct seen {
    uint8_t code = 0;
    uint16_t model = 0;
    uint8_t slot = 0;
    uint16_t seq = 0;
    uint32_t addr = 0;
    uint16_t len = 0;
    std::vector<uint8_t> data{};
    bool operator==(const seen&) const = default;
};
void PrintTo(const seen& s, std::ostream* out); // without the data

// Whether what a test waits for comes true within 20 s.
[[nodiscard]] bool becomes(const std::function<bool()>& condition);

void write_bytes(const std::filesystem::path& path, std::span<const uint8_t> bytes);
[[nodiscard]] std::vector<uint8_t> numbered(size_t bytes, uint8_t from = 0); // from, from + 1, … wrapping after 250

class ThreeLinks : public testing::Test {
protected:
    ThreeLinks();
    ~ThreeLinks() override;
    void SetUp() override;
    void TearDown() override;

    // Runs the tool to its end.
    [[nodiscard]] said run(std::vector<std::string> arguments) const;
    // Starts it; its output is both streams.
    [[nodiscard]] std::unique_ptr<child> start(std::vector<std::string> arguments) const;

    // The first `count` good requests to a link since the test's start, or since forget(); waits until they are there,
    // and a little for one that should not be.
    [[nodiscard]] std::vector<seen> requests(size_t link, size_t count);
    void forget(); // also ends all faults

    std::array<card_farm, 3> farms;
    const std::filesystem::path folder; // of the test's own, gone at its end

private:
    std::array<card_link, 3> links{card_link{farms[0]}, card_link{farms[1]}, card_link{farms[2]}};
};

} // namespace rvk
