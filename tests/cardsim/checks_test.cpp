// A card's eye for frames that no controller should send: if it misses one, no test of the daemon will see it either.
#include "cardsim/checks.h"
#include "cardsim/requests.h"
#include "eth_raw/frame.h"

#include <gtest/gtest.h>

#include <functional>

using namespace rvk;

namespace {

using frame = std::vector<uint8_t>;
const frame short_data{1, 2, 3, 4};

frame plain(size_t len) { return write_frame({.code = code_write}, frame(len, 0x5A)); }
frame acknowledged(size_t len) { return write_frame({.code = code_write_ack, .seq = 9}, frame(len, 0x5A)); }
frame reading(uint16_t len) { return read_frame({.code = code_read, .seq = 9}, len); }

// Changes one byte of a good frame and puts the checksum right again.
frame altered(frame f, size_t offset, uint8_t value)
{
    f[offset] = value;
    close_request(f);
    return f;
}

frame resized(frame f, size_t size)
{
    f.resize(size);
    if (size > request::payload) { close_request(f); }
    return f;
}

struct check_case {
    const char* name;
    frame given;
    verdict said;
};

const check_case cases[] = {
    {"the shortest write", plain(1), verdict::good},
    {"a write that needs no padding", plain(64), verdict::good},
    {"the longest write", acknowledged(1400), verdict::good},
    {"the longest read", reading(1400), verdict::good},
    {"nothing", {}, verdict::foreign},
    {"not even two addresses", resized(plain(4), 11), verdict::foreign},
    {"another's source address", altered(plain(4), request::source, 0x45), verdict::foreign},
    {"another destination", altered(plain(4), request::destination + 5, 0x91), verdict::wrong_destination},
    {"another type", altered(plain(4), request::type, 0x08), verdict::wrong_type},
    {"the sync bytes of a reply", altered(altered(plain(4), request::sync, 0xAA), request::sync + 1, 0x55),
     verdict::wrong_sync},
    {"a byte less than a header", resized(plain(4), request::payload - 1), verdict::too_short_for_header},
    {"the code of the other acknowledgement", altered(plain(4), request::code, code_ack_short), verdict::unknown_code},
    {"a write of nothing", altered(plain(4), request::len, 0), verdict::len_zero},
    {"a read of nothing", reading(0), verdict::len_zero},
    {"a read of 1401", reading(1401), verdict::len_above_max},
    {"no padding to 64", resized(plain(4), request::payload + 4 + checksum_bytes), verdict::shorter_than_len},
    {"a header and nothing behind it", resized(plain(4), request::payload), verdict::shorter_than_len},
    {"a byte less than len", resized(plain(1400), 1429), verdict::shorter_than_len},
    {"a byte more than len", resized(plain(1400), 1431), verdict::longer_than_len},
    {"a read with room for its answer", resized(reading(1400), 1430), verdict::longer_than_len},
    {"padding that is not zero", altered(plain(4), request::payload + 63, 1), verdict::padding_not_zero},
    {"the first byte of padding", altered(plain(4), request::payload + 4, 1), verdict::padding_not_zero},
    {"a read that carries something", altered(reading(4), request::payload, 1), verdict::read_area_not_zero},
    {"a plain write with a number", write_frame({.code = code_write, .seq = 1}, short_data),
     verdict::plain_write_numbered},
};

} // namespace

TEST(CheckRequest, NamesWhatIsWrong)
{
    for (const check_case& c : cases) {
        SCOPED_TRACE(c.name);
        request_fields fields;
        EXPECT_STREQ(name_of(check_request(c.given, fields)), name_of(c.said));
    }
}

TEST(CheckRequest, SeesEveryFlippedBitBehindTheSyncBytes)
{
    const frame good = acknowledged(100);
    for (size_t bit = checksummed_from * 8; bit < good.size() * 8; ++bit) {
        frame bad = good;
        bad[bit / 8] ^= static_cast<uint8_t>(1u << bit % 8);
        request_fields fields;
        EXPECT_NE(check_request(bad, fields), verdict::good) << "bit " << bit;
    }
}

TEST(CheckRequest, HandsOutTheFields)
{
    const frame f = write_frame(
        {.code = code_write_ack, .addr = 0x89ABCDEF, .seq = 0xFEDC, .model = 0x1234, .slot = 0xF1}, short_data);
    request_fields fields;
    ASSERT_EQ(check_request(f, fields), verdict::good);
    EXPECT_EQ(fields.model, 0x1234);
    EXPECT_EQ(fields.slot, 0xF1);
    EXPECT_EQ(fields.seq, 0xFEDC);
    EXPECT_EQ(fields.code, code_write_ack);
    EXPECT_EQ(fields.addr, 0x89ABCDEFu);
    EXPECT_EQ(fields.len, 4);
    EXPECT_EQ(frame(fields.data.begin(), fields.data.end()), short_data);
}
