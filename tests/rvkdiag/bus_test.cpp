// Bus blocks between files and card memory, and every way in which they are not done.
#include "rvkdiag/three_links.h"

#include <cstdlib>
#include <sys/sem.h>

using namespace rvk;

namespace {

constexpr uint32_t addr = 0x20000;
constexpr double always = 1.0;
constexpr key_t semaphore_key = 1234569;
constexpr milliseconds not_for_ever{60'000};

class Bus : public ThreeLinks {
protected:
    [[nodiscard]] std::vector<uint8_t> read_file() const
    {
        const std::string text = file_text(into);
        return {text.begin(), text.end()};
    }
    [[nodiscard]] said read(size_t link, const std::string& bytes) const
    {
        return run({"bus", "read", std::to_string(link), "0x20000", bytes, into});
    }
    const std::string into = folder / "back.bin";
};

void set_mtu(int mtu) { ASSERT_EQ(std::system(("ip link set eth1 mtu " + std::to_string(mtu)).c_str()), 0); }

} // namespace

TEST_F(Bus, BlocksGoThereAndBackOnEveryLink)
{
    for (size_t link = 0; link < farms.size(); ++link) {
        uint64_t packets = 0;
        for (const size_t bytes : {size_t{10}, size_t{8000}, size_t{20'000}}) {
            SCOPED_TRACE(std::to_string(bytes) + " on link " + std::to_string(link));
            const auto block = numbered(bytes, static_cast<uint8_t>(link + bytes));
            write_bytes(folder / "block.bin", block);
            const said wrote = run({"bus", "write", std::to_string(link), "0x20000", folder / "block.bin"});
            EXPECT_EQ(wrote.status, 0) << wrote.err;
            EXPECT_NE(wrote.out.find("not acknowledged"), std::string::npos) << wrote.out;
            EXPECT_TRUE(becomes([&] { return farms[link].read_bus(addr, bytes) == block; }));
            const said back = read(link, std::to_string(bytes));
            EXPECT_EQ(back.status, 0) << back.err;
            EXPECT_TRUE(read_file() == block);
            packets += (bytes + 7999) / 8000;
            EXPECT_EQ(farms[link].counts().bus_writes, packets);
            EXPECT_EQ(farms[link].counts().bus_reads, packets);
        }
    }
    const int semaphore = semget(semaphore_key, 1, 0);
    EXPECT_EQ(semctl(semaphore, 0, GETVAL), 1) << "free, and still there for the others";
}

TEST_F(Bus, ACardThatNeverAnswersIsGivenUp)
{
    farms[1].set_faults({.loss = always});
    const auto tool = start({"bus", "read", "1", "0x20000", "20000", into});
    EXPECT_EQ(tool->end(not_for_ever), 3);
    EXPECT_NE(
        tool->output().find("rvkdiag: bus read of 20000 bytes at 0x00020000, link 1 (eth1): no answer at 0x00020000"),
        std::string::npos)
        << tool->output();
    EXPECT_EQ(farms[1].counts().of(fault::loss), 11u) << "ten attempts, and one to learn why they failed";
    EXPECT_FALSE(std::filesystem::exists(into));
}

TEST_F(Bus, ACardThatRefusesIsToldFromOneThatIsNotThere)
{
    farms[2].set_faults({.bus_refused = always});
    const said ran = read(2, "16000");
    EXPECT_EQ(ran.status, 1);
    EXPECT_NE(ran.err.find("the card refused at 0x00020000"), std::string::npos) << ran.err;
    EXPECT_FALSE(std::filesystem::exists(into));
    forget();
    farms[2].set_faults({.bus_refused = 1});
    EXPECT_EQ(read(2, "16000").status, 0) << "the next attempt is answered";
    farms[2].set_faults({.bus_refused = 10});
    const said unlucky = read(2, "64");
    EXPECT_EQ(unlucky.status, 3);
    EXPECT_NE(unlucky.err.find("each piece came when asked for alone"), std::string::npos) << unlucky.err;
}

TEST_F(Bus, AnMtuThatIsTooSmallForThePacketsIsSaidToBe)
{
    set_mtu(1500);
    const said ran = read(1, "8000");
    EXPECT_EQ(ran.status, 2);
    EXPECT_NE(ran.err.find("link 1 (eth1) has an MTU of 1500, and this needs 8012: ip link set eth1 mtu 9000"),
              std::string::npos)
        << ran.err;
    EXPECT_EQ(farms[1].counts().received, 0u);
    EXPECT_EQ(read(1, "1474").status, 0) << "the longest packet that fits";
    EXPECT_EQ(read(1, "1489").status, 2);
    set_mtu(9000);
    EXPECT_EQ(read(1, "8000").status, 0);
}

TEST_F(Bus, AFileThatCannotBeWrittenIsNotDone)
{
    const said ran = run({"bus", "read", "1", "0", "64", folder / "none/x"});
    EXPECT_EQ(ran.status, 2);
    EXPECT_NE(ran.err.find("none/x\" cannot be written"), std::string::npos) << ran.err;
}
