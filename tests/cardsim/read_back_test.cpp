// The registers of a read-back: order, sizes, and which bytes of card memory a step delivers.
#include "base/bytes.h"
#include "cardsim/read_back.h"

#include <gtest/gtest.h>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;
using enum mistake;

bytes command(uint32_t word, uint16_t units, uint8_t last = 0)
{
    bytes b(7);
    store_le32(b.data(), word);
    store_le16(&b[4], units);
    b[6] = last;
    return b;
}

struct step {
    char kind; // c command, s start, ? status, r read of the window
    bytes what;
    size_t len = 0;
    mistake said = none;
};

struct order_case {
    const char* name;
    std::vector<step> steps;
};

step cmd(uint16_t units, mistake said = none) { return {'c', command(0, units), 0, said}; }
step go(mistake said = none) { return {'s', {1}, 0, said}; }
step look(mistake said = none) { return {'?', {}, 0, said}; }
step get(size_t len, mistake said = none) { return {'r', {}, len, said}; }

const order_case order_cases[] = {
    {"a full step", {cmd(22), go(), look(), get(1400)}},
    {"a short step, its last unit cut", {cmd(4), go(), look(), get(200)}},
    {"two steps", {cmd(1), go(), look(), get(64), cmd(2), go(), look(), get(65)}},
    {"looking twice", {cmd(1), go(), look(), look(), get(64)}},
    {"the data without the status", {cmd(1), go(), get(64, read_status_skipped)}},
    {"the data twice", {cmd(1), go(), look(), get(64), get(64, read_window_order)}},
    {"the data without a start", {cmd(1), get(64, read_window_order)}},
    {"the data without anything", {get(64, read_window_order)}},
    {"the status without a start", {cmd(1), look(read_status_order)}},
    {"a start without a command", {go(read_start_order)}},
    {"a second start", {cmd(1), go(), go(read_start_order)}},
    {"a start behind the data", {cmd(1), go(), look(), get(64), go(read_start_order)}},
    {"a unit more than commanded", {cmd(1), go(), look(), get(65, read_window_size), get(64)}},
    {"a unit less than commanded", {cmd(2), go(), look(), get(64, read_window_size)}},
    {"a start of another value", {cmd(1), {'s', {0}, 0, read_start_value}, {'s', {1, 0}, 0, read_start_value}, go()}},
    {"no units, or more than a step has", {cmd(0, read_command_value), cmd(23, read_command_value)}},
    {"a command with a last byte", {{'c', command(0, 1, 1), 0, read_command_value}}},
    {"commands of other lengths", {{'c', bytes(6), 0, read_command_length}, {'c', bytes(8), 0, read_command_length}}},
};

} // namespace

TEST(ReadBack, NamesWhatIsWrong)
{
    const picture_memory memory;
    for (const order_case& c : order_cases) {
        SCOPED_TRACE(c.name);
        read_back_port port;
        for (const step& s : c.steps) {
            mistake m = none;
            bytes out(s.len);
            switch (s.kind) {
            case 'c': m = port.command(s.what); break;
            case 's': m = port.start(s.what); break;
            case '?': m = port.status(); break;
            default: m = port.window(memory, out); break;
            }
            EXPECT_STREQ(name_of(m), name_of(s.said));
        }
    }
}

TEST(ReadBack, CountsAddressesInWordsOfEightBytes)
{
    picture_memory memory;
    bytes pattern(4096);
    for (size_t i = 0; i < pattern.size(); ++i) { pattern[i] = static_cast<uint8_t>(i * 7 + i / 256); }
    constexpr uint64_t last_word = 0xFFFFFFFF; // card memory is 32 GiB: more than a 32-bit count of bytes
    for (const uint64_t word : {uint64_t{0x10B0}, last_word}) {
        memory.write(word * 8, pattern);
        read_back_port port;
        bytes out(1400);
        ASSERT_EQ(port.command(command(static_cast<uint32_t>(word), 22)), none);
        ASSERT_EQ(port.start(bytes{1}), none);
        ASSERT_EQ(port.status(), none);
        ASSERT_EQ(port.window(memory, out), none);
        EXPECT_TRUE(std::equal(out.begin(), out.end(), pattern.begin()));
    }
}
