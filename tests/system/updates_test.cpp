// Firmware from a file into a card, from the client's command line to what the card keeps; and a daemon that dies on
// the way.
#include "system/cards.h"

#include "ap_msg/message.h"
#include "base/bytes.h"

#include <algorithm>
#include <memory>

using namespace rvk;

namespace {

constexpr card_id card{0, 5};
constexpr size_t registers = 7, pieces = 5, writes = registers + pieces;
constexpr size_t image_bytes = pieces * firmware_piece_bytes - firmware_head_bytes - 100; // the last piece is short

class Updates : public FilesTest {
protected:
    static std::vector<std::string> update_of(const std::string& path)
    {
        return {"update", path, "--type", "fpga-1a", "--slot", "5", "--model", "0x1234"};
    }
    // The card has exactly so many files, and the last is this image.
    void expect_kept(size_t count, const std::vector<uint8_t>& image)
    {
        const auto kept = farm.firmware(card);
        ASSERT_EQ(kept.size(), count);
        EXPECT_TRUE(std::ranges::equal(kept.back().image(), image));
        EXPECT_EQ(kept.back().device_type, 0x1234);
        EXPECT_EQ(load_le32(kept.back().bytes.data()), image.size());
    }
    // How many writes of the transfer behind `files` whole ones the card has carried out.
    size_t carried_out(size_t files) const
    {
        const firmware_progress now = farm.transfer(card);
        if (now.completed == files && (now.whole || now.registers == 0)) { return 0; } // it has not begun
        const uint64_t taken = (now.received + firmware_piece_bytes - 1) / firmware_piece_bytes;
        return now.registers + static_cast<size_t>(taken);
    }
    // Starts an update and kills the daemon while the answer to write `n` is on its way. Result: how far it came.
    size_t kill_at(size_t n, const std::string& path)
    {
        const size_t files = farm.firmware(card).size();
        farm.set_faults({.delay = 1.0, .delay_ms = 60});
        const auto client = start_rvkctl(update_of(path));
        EXPECT_TRUE(comes_true([&] { return carried_out(files) >= n; }));
        kill_daemon();
        const int said = client->end();
        farm.set_faults({});
        const size_t came = carried_out(files);
        EXPECT_TRUE(said == 3 || (said == 0 && came == writes)) << said << ": the client sees that nobody will answer";
        EXPECT_EQ(farm.firmware(card).size(), files + (came == writes ? 1 : 0)) << "after write " << came;
        return came;
    }
};

} // namespace

TEST_F(Updates, AnImageArrivesWhole)
{
    for (const size_t size : {image_bytes, size_t{300'000}}) {
        SCOPED_TRACE(size);
        const std::vector<uint8_t> image = content(1, size);
        EXPECT_EQ(rvkctl(update_of(file("fw.bin", image))), 0);
        expect_kept(size == image_bytes ? 1 : 2, image);
    }
}

TEST_F(Updates, APieceThatIsRefusedTwiceEndsIt)
{
    const std::vector<uint8_t> image = content(2, image_bytes);
    const std::string path = file("fw.bin", image);
    farm.set_behaviour({.refuse_piece = 3, .refuse_piece_times = 2});
    EXPECT_EQ(rvkctl(update_of(path)), 1);
    EXPECT_EQ(farm.counts().of(misbehaviour::refused_piece), 2u);
    EXPECT_TRUE(farm.firmware(card).empty());
    EXPECT_EQ(rvkctl(update_of(in_folder("missing.bin"))), 1);
    EXPECT_EQ(rvkctl(update_of(path)), 0);
    expect_kept(1, image);
}

TEST_F(Updates, CommandsMeanwhileAreDropped)
{
    constexpr uint32_t addr = 0x1000000;
    const std::vector<uint8_t> image = content(3, image_bytes);
    conversation requester;
    farm.set_faults({.delay = 1.0, .delay_ms = 900}); // well below the time after which the daemon gives up
    const auto client = start_rvkctl(update_of(file("fw.bin", image)));
    ASSERT_TRUE(comes_true([&] { return farm.transfer(card).registers > 0; }));
    requester.tell({.code = command::write, .slot = 4, .addr = addr, .payload = {1, 2, 3}});
    requester.tell({.code = command::greeting});
    EXPECT_EQ(rvkctl({"--timeout", "500", "hello"}), 3);
    ASSERT_FALSE(farm.transfer(card).whole) << "it was held long enough";
    farm.set_faults({});
    EXPECT_EQ(client->end(), 0);
    expect_kept(1, image);
    EXPECT_EQ(rvkctl({"--timeout", "30000", "hello"}), 0);
    EXPECT_TRUE(requester.receive(milliseconds{0}).empty()) << "dropped, not kept for later";
    EXPECT_EQ(farm.read({0, 4}, addr, 3), std::vector<uint8_t>(3));
}

TEST_F(Updates, ADaemonKilledAtAnyWriteIsFollowedByOneThatSucceeds)
{
    constexpr int tries = 10; // until the kill hits the very write
    size_t files = 0;
    for (size_t n = 1; n <= writes && !HasFailure(); ++n) {
        SCOPED_TRACE(n);
        size_t came = 0;
        for (int i = 0; i < tries && came != n && !HasFailure(); ++i) {
            came = kill_at(n, file("fw.bin", content(2, image_bytes)));
            files += came == writes ? 1 : 0;
            start_daemon();
            const std::vector<uint8_t> next = content(10 + static_cast<uint32_t>(n), 1500); // shorter
            ASSERT_EQ(rvkctl(update_of(file("next.bin", next))), 0);
            expect_kept(++files, next);
        }
        EXPECT_EQ(came, n);
    }
}
