// Frames byte for byte, in hex as a card would see or send them, and the sum that closes them.
#include "eth_raw/frame.h"

#include "base/bytes.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <vector>

using namespace rvk;
using bytes = std::vector<uint8_t>;

namespace {

bytes of_hex(const std::string& text)
{
    bytes out(text.size() / 2);
    for (size_t i = 0; i < out.size(); ++i) {
        out[i] = static_cast<uint8_t>(std::stoi(text.substr(2 * i, 2), nullptr, 16));
    }
    return out;
}

// Ends a frame with the sum of what is there.
bytes closed(bytes frame)
{
    frame.resize(frame.size() + 2);
    store_le16(&frame[frame.size() - 2], frame_checksum_plain(&frame[16], frame.size() - 18));
    return frame;
}

TEST(Frame, PacksRequests)
{
    struct pack_case {
        uint16_t model;
        uint8_t slot, code;
        uint32_t addr;
        uint16_t seq, len;
        size_t frame_bytes;
        const char* fields; // from the sync bytes to the payload, which is all FF
        uint16_t checksum;  // 5555, the fields from the model on, and FF for each byte carried
    };
    const pack_case cases[] = {
        {0x1234, 0x56, 0x11, 0x789ABCDE, 0xF012, 63, 94, "55aa34125612f011debc9a783f00", 0x99AF}, // padded
        {0, 0, 1, 0, 0, 65, 95, "55aa000000000001000000004100", 0x9656},                          // not padded
        {0, 0, 1, 0, 0, 1400, 1430, "55aa000000000001000000007805", 0xC85B}, // the longest wraps its sum
        {0, 0, 0, 0, 0, 1400, 94, "55aa000000000000000000007805", 0x9592},   // a read asks for more than it carries
    };
    for (const pack_case& c : cases) {
        bytes room(1500, 0xFF), expected = of_hex("eb90eb90eb904444444444440700" + std::string(c.fields));
        uint8_t* payload = &room[request::payload];
        EXPECT_EQ(RawMsgHeaderPack(c.model, c.slot, c.code, c.addr, c.seq, &payload, c.len), c.frame_bytes);
        expected.resize(room.size(), 0xFF);
        store_le16(&expected[c.frame_bytes - 2], c.checksum);
        EXPECT_EQ(room, expected);
    }
}

// What unpacking says of a frame of just these bytes, so that a look past them is seen: "-" or the fields.
std::string unpacked(const bytes& frame)
{
    const bytes exact(frame);
    uint8_t ack = 0, slot = 0, code = 0;
    uint16_t model = 0, seq = 0, len = 0;
    uint32_t addr = 0;
    const uint8_t* at = RawMsgHeaderUnpack(exact.data(), exact.size(), &ack, &model, &slot, &code, &addr, &seq, &len);
    char text[100] = "-";
    if (at == nullptr) { return text; }
    snprintf(text, sizeof text, "ack %x model %x slot %x seq %x code %x addr %x len %x at %td", ack, model, slot, seq,
             code, addr, len, at - exact.data());
    return text;
}

TEST(Frame, UnpacksRepliesThatAreWhole)
{
    const bytes good = closed(of_hex("444444444444eb90eb90eb901234aa55050201070403110d0c0b0a040001020304"));
    const std::string fields = "ack 5 model 102 slot 7 seq 304 code 11 addr a0b0c0d len 4 at 29";
    EXPECT_EQ(unpacked(good), fields);
    for (size_t i = 0; i < good.size(); ++i) { // each byte counts, but for the type
        auto wrong = good;
        wrong[i] ^= 0x80;
        EXPECT_EQ(unpacked(wrong) == "-", i != 12 && i != 13) << i;
        EXPECT_EQ(unpacked({good.begin(), good.begin() + static_cast<long>(i)}), "-") << "cut to " << i;
    }
    auto padded = good;
    padded.resize(64);
    EXPECT_EQ(unpacked(padded), "-") << "the checksum is what stands last";
    store_le16(&padded[62], load_le16(&good[33]));
    EXPECT_EQ(unpacked(padded), fields) << "there it counts";
    for (const uint16_t claimed : {uint16_t{5}, uint16_t{1419}, uint16_t{65535}}) {
        bytes lying(good.begin(), good.end() - 2);
        store_le16(&lying[reply::len], claimed);
        // The sum's low byte becomes 0, so that it suits what is there with and without its own first byte.
        lying[32] = static_cast<uint8_t>(lying[32] - frame_checksum_plain(&lying[16], 17));
        EXPECT_EQ(unpacked(closed(lying)), "-") << claimed;
    }
}

// Every length up to a whole frame, from every place in a vector, with bytes that make its words wrap and with others.
TEST(Checksum, EqualsThePlainLoop)
{
    bytes noise(request_bytes_max + 17);
    std::mt19937 random(3);
    for (uint8_t& byte : noise) { byte = static_cast<uint8_t>(random()); }
    for (const bytes& b : {noise, bytes(noise.size(), 0xFF)}) {
        for (size_t at = 0; at < 17; ++at) {
            for (size_t n = 0; n <= request_bytes_max; ++n) {
                ASSERT_EQ(frame_checksum(&b[at], n), frame_checksum_plain(&b[at], n)) << n << " bytes from " << at;
            }
        }
    }
}

} // namespace
