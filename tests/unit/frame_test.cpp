// Frames byte for byte, in hex as a card would see or send them, and the sum that closes them.
#include "eth_raw/frame.h"

#include "base/bytes.h"

#include <gtest/gtest.h>

#include <charconv>
#include <random>
#include <string>
#include <vector>

using namespace rvk;
using bytes = std::vector<uint8_t>;

namespace {

bytes of_hex(const std::string& text)
{
    bytes out(text.size() / 2);
    const char* at = text.data();
    for (uint8_t& byte : out) { at = std::from_chars(at, at + 2, byte, 16).ptr; }
    return out;
}

TEST(Frame, PacksRequests)
{
    struct pack_case {
        uint16_t model, seq, len, checksum; // 5555, the fields from the model on, and FF for each byte carried
        uint8_t slot, code;
        uint32_t addr;
        const char* fields; // from the sync bytes to the payload, which is all FF
        size_t bytes;
    } const cases[] = {
        {0x1234, 0xF012, 63, 0x99AF, 0x56, 0x11, 0x789ABCDE, "55aa34125612f011debc9a783f00", 94}, // padded
        {0, 0, 65, 0x9656, 0, 1, 0, "55aa000000000001000000004100", 95},                          // not padded
        {0, 0, 1400, 0xC85B, 0, 1, 0, "55aa000000000001000000007805", 1430}, // the longest wraps its sum
        {0, 0, 1400, 0x9592, 0, 0, 0, "55aa000000000000000000007805", 94},   // a read asks for more than it carries
    };
    for (const pack_case& c : cases) {
        bytes buffer(1500, 0xFF), expected = of_hex("eb90eb90eb904444444444440700" + std::string(c.fields));
        uint8_t* payload = &buffer[request::payload];
        EXPECT_EQ(RawMsgHeaderPack(c.model, c.slot, c.code, c.addr, c.seq, &payload, c.len), c.bytes);
        expected.resize(buffer.size(), 0xFF);
        store_le16(&expected[c.bytes - 2], c.checksum);
        EXPECT_EQ(buffer, expected);
    }
}

// Every length up to a whole frame, from every place in a vector, with bytes that make its words wrap and with others.
TEST(Checksum, EqualsThePlainLoop)
{
    bytes noise(request_bytes_max + 17);
    std::mt19937 random(3);
    for (uint8_t& byte : noise) { byte = static_cast<uint8_t>(random()); }
    for (const bytes& b : {noise, bytes(noise.size(), 0xFF)}) {
        for (size_t i = 0; i < 17 * (request_bytes_max + 1); ++i) {
            const size_t at = i % 17, n = i / 17;
            ASSERT_EQ(frame_checksum(&b[at], n), frame_checksum_plain(&b[at], n)) << n << " bytes from " << at;
        }
    }
}

} // namespace
