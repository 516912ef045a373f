// The cards behind a real socket, over a veth pair: nothing is lost however fast it comes, and every answer arrives.
#include "base/bytes.h"
#include "base/fd.h"
#include "base/pause.h"
#include "base/rt_thread.h"
#include "cardsim/link.h"
#include "cardsim/registers.h"
#include "cardsim/requests.h"
#include "eth_raw/frame.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <functional>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/time.h>

using namespace rvk;

namespace {

using bytes = std::vector<uint8_t>;
constexpr card_id card{0, 1};

// The controller's end.
class controller {
public:
    explicit controller(const char* interface)
    {
        fd.reset(socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0));
        const timeval patience{.tv_sec = 5, .tv_usec = 0};
        setsockopt(fd.get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        sockaddr_ll address{};
        address.sll_family = AF_PACKET;
        address.sll_protocol = htons(ETH_P_ALL);
        address.sll_ifindex = static_cast<int>(if_nametoindex(interface));
        EXPECT_EQ(bind(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << interface;
    }
    bool send(std::span<const uint8_t> frame)
    {
        return ::send(fd.get(), frame.data(), frame.size(), 0) == static_cast<ssize_t>(frame.size());
    }
    bytes receive() // empty after 5 s
    {
        bytes frame(4096);
        const ssize_t n = recv(fd.get(), frame.data(), frame.size(), 0);
        frame.resize(n > 0 ? static_cast<size_t>(n) : 0);
        return frame;
    }

private:
    unique_fd fd;
};

bool soon(const std::function<bool()>& condition)
{
    for (int i = 0; i < 20'000; ++i) {
        if (condition()) { return true; }
        pause_ms(1);
    }
    return false;
}

// A picture of 3840 x 2160 pixels of 4 bytes, in frames of 1,400 bytes and a last one of 400; no two frames alike.
constexpr uint16_t hor = 3840, ver = 2160;
constexpr size_t picture_bytes = size_t{hor} * ver * 4;
constexpr uint32_t plain_addr = 0x80000000; // plain memory, where the frames lie one behind the other
constexpr uint8_t buffer = 16;

bytes picture()
{
    bytes data(picture_bytes);
    uint32_t x = 1;
    for (uint8_t& b : data) {
        x = x * 1664525 + 1013904223;
        b = static_cast<uint8_t>(x >> 24);
    }
    return data;
}

// The frames are packed beforehand: nothing but the system call lies between one and the next.
// advance  from one frame's address to the next one's
std::vector<bytes> frames_of(const bytes& data, uint32_t addr, uint32_t advance)
{
    std::vector<bytes> frames;
    for (size_t at = 0; at < data.size(); at += frame_data_max) {
        const auto piece = std::span(data).subspan(at, std::min(frame_data_max, data.size() - at));
        frames.push_back(write_frame({.code = code_write, .addr = addr}, piece));
        addr += advance;
    }
    return frames;
}

class Link : public testing::Test {
protected:
    void start(const link_options& options = {}) { ASSERT_EQ(link.start(options), ""); }
    void TearDown() override
    {
        if (HasFailure()) { EXPECT_EQ(farm.write_pcap("cardsim_link_test.pcap"), ""); }
    }
    card_farm farm;
    card_link link{farm};
};

void send_all(controller& sender, const std::vector<bytes>& frames)
{
    timespec from{}, to{};
    clock_gettime(CLOCK_MONOTONIC, &from);
    for (const bytes& frame : frames) { ASSERT_TRUE(sender.send(frame)) << strerror(errno); }
    clock_gettime(CLOCK_MONOTONIC, &to);
    const double seconds =
        static_cast<double>(to.tv_sec - from.tv_sec) + 1e-9 * static_cast<double>(to.tv_nsec - from.tv_nsec);
    std::printf("sent %zu frames at %.0f a second\n", frames.size(), static_cast<double>(frames.size()) / seconds);
}

void flood_plain_memory(card_farm& farm, card_link& link)
{
    const bytes data = picture();
    const std::vector<bytes> frames = frames_of(data, plain_addr, frame_data_max);
    controller sender("eth0");
    send_all(sender, frames);
    EXPECT_TRUE(soon([&] { return farm.counts().received >= frames.size(); })) << farm.counts().received;
    EXPECT_EQ(link.dropped(), 0u);
    EXPECT_EQ(farm.counts().plain_writes, frames.size());
    EXPECT_EQ(farm.counts().refusals(), "none");
    EXPECT_EQ(farm.written(card), (std::vector<extent>{{plain_addr, plain_addr + data.size()}}));
    EXPECT_TRUE(farm.read(card, plain_addr, data.size()) == data); // not EQ: it would print 33 MB
}

void acknowledged(controller& sender, uint16_t seq, const bytes& data)
{
    ASSERT_TRUE(sender.send(write_frame({.code = code_write_ack, .addr = demo_control, .seq = seq}, data)));
    EXPECT_EQ(as_seen(sender.receive()), "11/0/0");
}

// As the controller puts a picture: the end is acknowledged only when every byte before it was taken.
void put_picture(controller& sender, const std::vector<bytes>& frames)
{
    bytes set_up{0, 0, 0, 0, 0, buffer};
    store_le16(&set_up[1], hor);
    store_le16(&set_up[3], ver);
    acknowledged(sender, 1, set_up);
    acknowledged(sender, 2, {1});
    send_all(sender, frames);
    acknowledged(sender, 3, {0});
}

// Twice: into memory that was never touched, and over what is there.
void flood_picture_memory(card_farm& farm, card_link& link)
{
    bytes data = picture();
    controller sender("eth0");
    for (size_t round = 1; round <= 2; ++round) {
        data[round] ^= 0xFF;
        put_picture(sender, frames_of(data, demo_data, 0));
        EXPECT_EQ(farm.counts().refusals(), "none");
        EXPECT_EQ(farm.pictures(card), (std::vector<picture_record>{{buffer, hor, ver, picture_bytes, true, round}}));
        EXPECT_TRUE(farm.picture(card, buffer) == data);
    }
    EXPECT_EQ(link.dropped(), 0u);
}

// Runs on the processor of the cards and above them: they then get none of it while the sender has it, and all that
// comes must wait in the receive buffer.
class starving_sender {
public:
    starving_sender()
    {
        EXPECT_EQ(sched_getaffinity(0, sizeof before, &before), 0);
        EXPECT_EQ(pin_to_processor(1), 0);
        sched_param priority{};
        priority.sched_priority = 1;
        EXPECT_EQ(sched_setscheduler(0, SCHED_FIFO, &priority), 0);
    }
    ~starving_sender()
    {
        const sched_param ordinary{};
        sched_setscheduler(0, SCHED_OTHER, &ordinary);
        sched_setaffinity(0, sizeof before, &before);
    }

private:
    cpu_set_t before{};
};

} // namespace

TEST_F(Link, TakesAsMuchAsAPictureAsFastAsItCanBeSent)
{
    start();
    flood_plain_memory(farm, link);
}

TEST_F(Link, TakesAsMuchFromASenderAboveItOnTheSameProcessor)
{
    start({.processor = 1});
    const starving_sender above;
    flood_plain_memory(farm, link);
}

TEST_F(Link, TakesAPictureAsFastAsItCanBeSent)
{
    start();
    flood_picture_memory(farm, link);
}

TEST_F(Link, TakesAPictureFromASenderAboveItOnTheSameProcessor)
{
    start({.processor = 1});
    const starving_sender above;
    flood_picture_memory(farm, link);
}

TEST_F(Link, AnswersEveryRequestOfABurst)
{
    farm.keep_trail(1000);
    start();
    controller sender("eth0");
    constexpr uint16_t count = 100; // what a receive buffer of the usual size holds without anybody reading
    for (uint16_t i = 0; i < count; ++i) { ASSERT_TRUE(sender.send(read_frame({.addr = i * 4u, .seq = i}, 4))); }
    for (uint16_t i = 0; i < count; ++i) {
        const bytes frame = sender.receive();
        ASSERT_EQ(as_seen(frame), "00/0/4") << i;
        EXPECT_EQ(load_le16(frame.data() + reply::seq), i);
    }
    EXPECT_EQ(link.unsent(), 0u);
}

TEST_F(Link, SendsLateAnswersByItself)
{
    farm.keep_trail(1000);
    farm.set_faults({.delay = 1, .delay_ms = 120});
    start();
    controller sender("eth0");
    ASSERT_TRUE(sender.send(read_frame({.seq = 1}, 4)));
    ASSERT_TRUE(sender.send(read_frame({.seq = 2}, 4)));
    EXPECT_EQ(load_le16(sender.receive().data() + reply::seq), 2);
    EXPECT_EQ(load_le16(sender.receive().data() + reply::seq), 1);
}

// Two links in one process, each with its own cards and a thread above everybody: a benchmark's and a soak's set-up.
TEST_F(Link, LinksAreApartAndFaultsChangeWhileTheyRun)
{
    card_farm other_farm;
    card_link other(other_farm);
    start({.priority = 10});
    ASSERT_EQ(other.start({.interface = "card1", .processor = 1, .priority = 10}), "");
    controller first("eth0"), second("eth1");
    const bytes frame = write_frame({.code = code_write_ack, .seq = 5}, bytes{1});
    for (int round = 0; round < 3; ++round) {
        farm.set_faults({.wrong_ack = 1});
        ASSERT_TRUE(first.send(frame));
        EXPECT_EQ(as_seen(first.receive()), "11/2/0");
        ASSERT_TRUE(first.send(frame));
        EXPECT_EQ(as_seen(first.receive()), "11/0/0");
        ASSERT_TRUE(second.send(frame));
        EXPECT_EQ(as_seen(second.receive()), "11/0/0");
    }
    EXPECT_EQ(farm.counts().received, 6u);
    EXPECT_EQ(other_farm.counts().received, 3u);
}

TEST_F(Link, StartsAgainAndRefusesByName)
{
    EXPECT_NE(link.start({.interface = "nosuch"}).find("interface nosuch does not exist: run this inside"),
              std::string::npos);
    for (int round = 0; round < 10; ++round) { // more often than there are links at once
        start();
        EXPECT_EQ(link.start(), "interface card0: its cards are running already");
        link.stop();
    }
    start();
    controller sender("eth0");
    ASSERT_TRUE(sender.send(read_frame({.seq = 1}, 4)));
    EXPECT_EQ(as_seen(sender.receive()), "00/0/4");
}
