// What the tool finds around it: a daemon, a link that is down or gone, an answer that nobody takes.
#include "platform/endpoint_folder.h"
#include "requester/requester.h"
#include "rvkdiag/three_links.h"
#include "system/daemon.h"

#include <cstdlib>

using namespace rvk;

namespace {

struct Surroundings : ThreeLinks {
    endpoint_folder endpoints;
};

void run_ip(const std::string& arguments) { ASSERT_EQ(std::system(("ip " + arguments).c_str()), 0) << arguments; }

bool has_carrier(const std::string& interface)
{
    return std::system(("ip link show " + interface + " | grep -q LOWER_UP").c_str()) == 0;
}

} // namespace

// Bound and never reading, as a daemon in an update.
TEST_F(Surroundings, LinkZeroIsADaemonsWhileItsEndpointIsAlive)
{
    const std::vector<std::string> commands[] = {{"fpga", "0", "readw", "0", "1", "1000000", "4"},
                                                 {"fpga", "0", "write", "0", "1", "1000000", "aa"},
                                                 {"bus", "read", "0", "0", "4", folder / "block"},
                                                 {"lvds", "--reboot"}};
    for (const uint32_t identity : {daemon_identity, identity_of(7, module_self)}) {
        requester daemon;
        ASSERT_EQ(daemon.open(identity), endpoint_status::ok);
        for (const auto& command : commands) {
            SCOPED_TRACE(command[0]);
            const said ran = run(command);
            EXPECT_EQ(ran.status, 2);
            EXPECT_EQ(ran.out, "");
            EXPECT_NE(ran.err.find("link 0 is in use by a daemon (" + socket_path(identity)), std::string::npos)
                << ran.err;
        }
        EXPECT_EQ(run({"fpga", "1", "writeaw", "0", "1", "1000000", "aa"}).status, 0);
        EXPECT_EQ(run({"fpga", "2", "writeaw", "0", "1", "1000000", "aa"}).status, 0);
        if (identity == daemon_identity) { // one that was killed leaves its file
            std::filesystem::create_hard_link(socket_path(identity), endpoints.file("left"));
        }
    }
    EXPECT_EQ(farms[0].counts().received, 0u);
    std::filesystem::rename(endpoints.file("left"), socket_path(daemon_identity));
    EXPECT_EQ(run({"fpga", "0", "writeaw", "0", "1", "1000000", "aa"}).status, 0);
}

// A socket that got the number of a closed stream would send the dump to the cards.
TEST_F(Surroundings, ClosedStreamsAreNotTheLinks)
{
    for (const std::string closed : {"<&-", ">&-", "2>&-", "<&- >&- 2>&-"}) {
        SCOPED_TRACE(closed);
        const std::string line = program("rvkdiag") + " fpga 1 readw 0 1 1000000 40 " + closed;
        EXPECT_NE(std::system(line.c_str()), -1);
    }
    EXPECT_EQ(requests(1, 4).size(), 4u);
    EXPECT_EQ(farms[1].counts().of(verdict::foreign), 0u);
}

TEST_F(Surroundings, ALinkThatIsDownIsSaidToBe)
{
    const std::vector<std::string> poke{"fpga", "2", "write", "0", "1", "1000000", "aa"};
    run_ip("link set eth2 mtu 1000");
    said ran = run(poke);
    EXPECT_EQ(ran.status, 2);
    EXPECT_NE(ran.err.find("an MTU of 1000"), std::string::npos) << ran.err;
    run_ip("link set eth2 mtu 9000");
    run_ip("link set card2 down");
    EXPECT_TRUE(becomes([] { return !has_carrier("eth2"); }));
    ran = run(poke);
    EXPECT_EQ(ran.status, 3);
    EXPECT_NE(ran.err.find("link 2 (eth2) has no carrier"), std::string::npos) << ran.err;
    run_ip("link set eth2 down");
    ran = run(poke);
    EXPECT_EQ(ran.status, 3);
    EXPECT_NE(ran.err.find("link 2 (eth2) is down: ip link set eth2 up"), std::string::npos) << ran.err;
    run_ip("link set eth2 name away");
    ran = run(poke);
    EXPECT_EQ(ran.status, 3);
    EXPECT_NE(ran.err.find("no such interface"), std::string::npos) << ran.err;
    run_ip("link set away name eth2");
    run_ip("link set eth2 up");
    run_ip("link set card2 up");
    EXPECT_TRUE(becomes([] { return has_carrier("eth2") && has_carrier("card2"); }));
    EXPECT_EQ(run(poke).status, 0);
    EXPECT_EQ(requests(2, 1).size(), 1u);
}

TEST_F(Surroundings, AnAnswerThatCannotBeWrittenIsNotDone)
{
    child tool({"sh", "-c", "exec \"$0\" usage > /dev/full", program("rvkdiag")});
    EXPECT_EQ(tool.end(), 2);
}

TEST_F(Surroundings, WithoutPrivilegesItSaysWhatItTakes)
{
    child tool({"sh", "-c",
                "exec setpriv --bounding-set=-all --inh-caps=-all --reuid=65534 --clear-groups \"$0\" fpga 1 "
                "readw 0 1 1000000 4 2>&1",
                program("rvkdiag")});
    EXPECT_EQ(tool.end(), 3);
    EXPECT_NE(tool.output().find("link 1 (eth1) cannot be opened"), std::string::npos) << tool.output();
}
