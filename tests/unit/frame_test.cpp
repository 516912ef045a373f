// Frames byte for byte, in hex as a card would see or send them.
#include "eth_raw/frame.h"

#include "base/bytes.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <string>
#include <vector>

using namespace rvk;

namespace {

std::string hex(const uint8_t* bytes, size_t count)
{
    std::string text;
    char two[3];
    for (size_t i = 0; i < count; ++i) { snprintf(two, sizeof two, "%02x", bytes[i]), text += two; }
    return text;
}

struct pack_case {
    const char* name;
    uint16_t model;
    uint8_t slot, code;
    uint32_t addr;
    uint16_t seq, len;
    uint8_t fill; // of the payload
    size_t frame_bytes;
    const char* fields; // from the sync bytes to the payload
    uint16_t checksum;
};
const pack_case pack_cases[] = {
    {"every field in its place", 0x1234, 0x56, 0x11, 0x789ABCDE, 0xF012, 4, 0, 94, "55aa34125612f011debc9a780400",
     0x59B4},
    {"a write below 64 is padded", 0, 1, 1, 0, 0, 63, 0, 94, "55aa000001000001000000003f00", 0x5596},
    {"one of 65 is not", 0, 0, 1, 0, 0, 65, 0xFF, 95, "55aa000000000001000000004100", 0x9656},
    {"the longest write wraps its sum", 0, 0, 1, 0, 0, 1400, 0xFF, 1430, "55aa000000000001000000007805", 0xC85B},
    {"a read asks for more than it carries", 0, 0, 0, 0, 0, 1400, 0, 94, "55aa000000000000000000007805", 0x55D2},
    {"nothing but zeros", 0, 0, 0, 0, 0, 0, 0, 94, "55aa000000000000000000000000", 0x5555},
};

TEST(Frame, PacksRequests)
{
    for (const pack_case& c : pack_cases) {
        SCOPED_TRACE(c.name);
        std::vector<uint8_t> room(1500, 0xA7);
        uint8_t* payload = room.data() + request::payload;
        memset(payload, c.fill, padded_length(c.code, c.len));
        EXPECT_EQ(RawMsgHeaderPack(c.model, c.slot, c.code, c.addr, c.seq, &payload, c.len), c.frame_bytes);
        EXPECT_EQ(payload, room.data());
        EXPECT_EQ(hex(room.data(), 14), "eb90eb90eb90"
                                        "444444444444"
                                        "0700");
        EXPECT_EQ(hex(room.data() + 14, 14), c.fields);
        EXPECT_EQ(load_le16(&room[c.frame_bytes - 2]), c.checksum);
        EXPECT_EQ(room[c.frame_bytes], 0xA7) << "written past its end";
    }
}

// A reply with all fields different, four bytes of data.
const std::array<uint8_t, 35> good_reply{0x44, 0x44, 0x44, 0x44, 0x44, 0x44, 0xEB, 0x90, 0xEB, 0x90, 0xEB, 0x90,
                                         0x12, 0x34, 0xAA, 0x55, 0x05, 0x02, 0x01, 0x07, 0x04, 0x03, 0x11, 0x0D,
                                         0x0C, 0x0B, 0x0A, 0x04, 0x00, 0x01, 0x02, 0x03, 0x04, 0xB8, 0x55};

// What unpacking says of a frame of just these bytes, so that a look past them is seen: "-" or the fields.
std::string unpacked(const std::vector<uint8_t>& frame)
{
    const std::vector<uint8_t> exact(frame);
    uint8_t ack = 0, slot = 0, code = 0;
    uint16_t model = 0, seq = 0, len = 0;
    uint32_t addr = 0;
    const uint8_t* at = RawMsgHeaderUnpack(exact.data(), exact.size(), &ack, &model, &slot, &code, &addr, &seq, &len);
    if (at == nullptr) { return "-"; }
    char text[100];
    snprintf(text, sizeof text, "ack %x model %x slot %x seq %x code %x addr %x len %x at %td", ack, model, slot, seq,
             code, addr, len, at - exact.data());
    return text;
}

TEST(Frame, UnpacksReplies)
{
    const std::vector<uint8_t> good(good_reply.begin(), good_reply.end());
    const std::string fields = "ack 5 model 102 slot 7 seq 304 code 11 addr a0b0c0d len 4 at 29";
    EXPECT_EQ(unpacked(good), fields);
    for (size_t i = 0; i < good.size(); ++i) { // each byte counts, but for the type
        auto wrong = good;
        wrong[i] ^= 0x80;
        EXPECT_EQ(unpacked(wrong) == "-", i != 12 && i != 13) << i;
    }
    for (size_t n = 0; n < good.size(); ++n) {
        EXPECT_EQ(unpacked({good.begin(), good.begin() + static_cast<long>(n)}), "-");
    }
    auto padded = good;
    padded.resize(64);
    EXPECT_EQ(unpacked(padded), "-") << "the checksum is what stands last";
    store_le16(&padded[62], 0x55B8);
    EXPECT_EQ(unpacked(padded), fields) << "there it counts";
    auto swapped = good;
    std::swap(swapped[14], swapped[15]);
    EXPECT_EQ(unpacked(swapped), "-") << "a request's sync bytes";
    for (const uint16_t claimed : {uint16_t{5}, uint16_t{1419}, uint16_t{65535}}) {
        auto lying = good;
        store_le16(&lying[reply::len], claimed);
        // Low byte zero: the sum then suits what is there, and what is there with the checksum's first byte.
        lying[32] = static_cast<uint8_t>(lying[32] - frame_checksum(&lying[16], 17));
        store_le16(&lying[33], frame_checksum(&lying[16], 17));
        EXPECT_EQ(unpacked(lying), "-") << claimed;
    }
    auto empty = std::vector<uint8_t>(good.begin(), good.begin() + 31);
    store_le16(&empty[reply::len], 0);
    store_le16(&empty[29], frame_checksum(&empty[16], 13));
    EXPECT_NE(unpacked(empty), "-") << "the shortest";
}

} // namespace
