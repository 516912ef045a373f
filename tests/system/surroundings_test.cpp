// A machine that is not as it should be: no eth0, a link that goes and comes, no privilege, a daemon that runs already.
#include "system/daemon.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <cstring>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

using namespace rvk;

namespace {

bool ip(const std::string& arguments) { return system(("ip " + arguments).c_str()) == 0; }

// Both ends; a veth drops frames silently until then.
bool has_carrier()
{
    const unique_fd asker{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    for (const char* name : {"eth0", "card0"}) {
        ifreq request{};
        strcpy(request.ifr_name, name);
        if (ioctl(asker.get(), SIOCGIFFLAGS, &request) != 0 || (request.ifr_flags & IFF_RUNNING) == 0) { return false; }
    }
    return true;
}

// The cable of link 0, taken out for as long as this lives.
struct unplugged {
    unplugged() { EXPECT_TRUE(ip("link del eth0")); }
    ~unplugged()
    {
        EXPECT_TRUE(ip("link add eth0 mtu 9000 type veth peer name card0 mtu 9000"));
        EXPECT_TRUE(ip("link set eth0 up") && ip("link set card0 up"));
        EXPECT_TRUE(comes_true(has_carrier));
    }
};

int count(const std::string& text, const std::string& part)
{
    int found = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) { ++found; }
    return found;
}

// Ten reads and a waited write, each answered "no" without a wait for a card.
void expect_refusals(conversation& requester)
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < 10; ++i) {
        const auto answer = requester.ask({.addr = 0x1000, .len = 16});
        EXPECT_EQ(answer.size(), message_head_bytes);
        EXPECT_EQ(result_of(answer), -1);
    }
    EXPECT_EQ(result_of(requester.ask({.code = command::write_ack, .slot = 2, .payload = {1}})), -1);
    // A single wait for a card that does not answer takes a quarter of a second.
    EXPECT_LT(std::chrono::steady_clock::now() - start, milliseconds{2000});
}

// With cards behind the link; false when none answers in time.
bool reads(conversation& requester)
{
    return comes_true([&] { return result_of(requester.ask({.addr = 0x1000, .len = 16})) == 0; });
}

} // namespace

TEST(Surroundings, WithoutEth0TheDaemonRunsOnAndSaysNo)
{
    const unplugged link;
    daemon_process d({"-d"});
    conversation requester;
    ASSERT_TRUE(requester.is_greeted());
    expect_refusals(requester);
    requester.tell({.code = command::write, .payload = {1, 2, 3}});
    requester.tell({.code = command::write_ack, .addr = 0x10, .payload = {1, 2, 3}});
    ASSERT_TRUE(requester.is_greeted());
    EXPECT_EQ(d.end_by(SIGTERM), 0);
    EXPECT_EQ(count(d.output(), "get inferface flag failed."), 1);
    EXPECT_EQ(count(d.output(), "is not open"), 1) << d.output();
    EXPECT_EQ(fault_in_last_words(d.output()), "");
}

TEST(Surroundings, ALinkThatIsDeletedUnderTheDaemonEndsNothing)
{
    daemon_process d({"-d"});
    conversation requester;
    ASSERT_TRUE(requester.is_greeted());
    {
        const unplugged link;
        expect_refusals(requester);
        pause_ms(500);
        ASSERT_TRUE(requester.is_greeted());
    }
    EXPECT_EQ(d.end_by(SIGTERM), 0);
    EXPECT_LE(count(d.output(), "receive failed"), 2) << "one line when it goes, none per try";
}

TEST(Surroundings, CommandsWorkAfterEachReturnOfTheLink)
{
    child cards({program("rvk-cardsim")});
    ASSERT_TRUE(cards.shows("ready"));
    daemon_process d({"-d"});
    conversation requester;
    ASSERT_TRUE(reads(requester));
    for (int i = 0; i < 20; ++i) {
        SCOPED_TRACE(i);
        ASSERT_TRUE(ip("link set eth0 down"));
        EXPECT_EQ(result_of(requester.ask({.addr = 0x1000, .len = 16})), -1);
        ASSERT_TRUE(ip("link set eth0 up"));
        ASSERT_TRUE(comes_true(has_carrier));
        ASSERT_TRUE(reads(requester));
        EXPECT_EQ(result_of(requester.ask({.code = command::write_ack, .slot = 2, .payload = {1, 2}})), 0);
    }
    EXPECT_EQ(d.end_by(SIGTERM), 0);
}

TEST(Surroundings, ASecondDaemonLeavesTheFirstAlone)
{
    daemon_process first({"-d"});
    conversation requester;
    ASSERT_TRUE(requester.is_greeted());
    {
        daemon_process second({"-d"});
        ASSERT_TRUE(second.shows("create apipc wex fail\n"));
        ASSERT_TRUE(second.shows("is bound to it and alive"));
        pause_ms(200);
        ASSERT_TRUE(requester.is_greeted());
        EXPECT_EQ(second.end_by(SIGTERM), 0);
        EXPECT_EQ(fault_in_last_words(second.output()), "");
    }
    ASSERT_TRUE(requester.is_greeted());
    EXPECT_EQ(first.end_by(SIGKILL), 1000 + SIGKILL);
    daemon_process third({"-d"}); // takes over what the killed one has left
    ASSERT_TRUE(requester.is_greeted());
    EXPECT_EQ(third.end_by(SIGTERM), 0);
}

TEST(Surroundings, WithoutTheRightToRawSocketsTheLinkStaysClosed)
{
    daemon_process d({"-d"}, daemon_setup(), {"setpriv", "--bounding-set=-net_raw"});
    conversation requester;
    ASSERT_TRUE(requester.is_greeted());
    expect_refusals(requester);
    EXPECT_EQ(d.end_by(SIGTERM), 0);
    EXPECT_EQ(count(d.output(), "socket() created failed."), 1);
}

TEST(Surroundings, WithoutTheRightToRealTimeThreadsTheProcessLives)
{
    daemon_process d({"-d"}, daemon_setup(), {"setpriv", "--bounding-set=-sys_nice", "prlimit", "--rtprio=0"});
    const auto said = [&] {
        static_cast<void>(d.shows("nothing", milliseconds{20}));
        return count(d.output(), "failed to create thread ") == 4; // receive, check, messages, files
    };
    EXPECT_TRUE(comes_true(said)) << d.output();
    pause_ms(200);
    EXPECT_EQ(d.end(milliseconds{0}), still_running);
    EXPECT_EQ(d.end_by(SIGTERM, last_words), 0);
    EXPECT_EQ(fault_in_last_words(d.output()), "");
}
