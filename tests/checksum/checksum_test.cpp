// The fast checksum against the plain loop: every length up to a whole frame, from every alignment, with bytes that
// make the 16-bit words wrap often and with none that do.
#include "eth_raw/frame.h"

#include <gtest/gtest.h>
#include <random>
#include <vector>

namespace rvk {
namespace {

constexpr size_t alignments = 17; // one more than a vector has bytes

std::vector<uint8_t> noise(size_t count)
{
    std::mt19937 random(3);
    std::vector<uint8_t> bytes(count);
    for (uint8_t& byte : bytes) { byte = static_cast<uint8_t>(random()); }
    return bytes;
}

TEST(FrameChecksum, EqualsThePlainLoop)
{
    const size_t room = request_bytes_max + alignments;
    for (const auto& bytes : {noise(room), std::vector<uint8_t>(room, 0xFF), std::vector<uint8_t>(room, 0)}) {
        for (size_t from = 0; from < alignments; ++from) {
            for (size_t count = 0; count <= request_bytes_max; ++count) {
                ASSERT_EQ(frame_checksum(bytes.data() + from, count), frame_checksum_plain(bytes.data() + from, count))
                    << count << " bytes from offset " << from;
            }
        }
    }
}

TEST(FrameChecksum, StartsAtItsConstantAndWraps)
{
    const std::vector<uint8_t> full(300, 0xFF);
    EXPECT_EQ(frame_checksum(full.data(), 0), 0x5555);
    EXPECT_EQ(frame_checksum(full.data(), 1), 0x5654);
    EXPECT_EQ(frame_checksum(full.data(), 300), static_cast<uint16_t>(0x5555 + 300 * 255));
}

} // namespace
} // namespace rvk
