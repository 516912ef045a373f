// No answer: each cause has a text of its own, since each asks for something else to be done.
#include "ap_msg/message.h"
#include "platform/endpoint_folder.h"
#include "requester/requester.h"
#include "run_rvkctl.h"
#include "rvkctl/fake_daemon.h"

#include <filesystem>
#include <gtest/gtest.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace rvk;

namespace {

constexpr uint32_t daemon_identity = identity_of(1, module_self);

// For the time of its life this process is a user who owns nothing here.
class powerless {
public:
    powerless() : was(geteuid())
    {
        if (was == 0) { EXPECT_EQ(seteuid(65534), 0); }
    }
    ~powerless()
    {
        if (was == 0) { EXPECT_EQ(seteuid(0), 0); }
    }

private:
    uid_t was;
};

// Runs a greeting and expects it to fail without an answer, for a reason named so in JSON.
void expect_no_answer(const std::string& kind, const std::string& text)
{
    SCOPED_TRACE(kind);
    const said ran = run_rvkctl({"hello", "--timeout", "60", "--json"});
    EXPECT_EQ(ran.status, 3);
    const auto object = nlohmann::json::parse(ran.out);
    EXPECT_EQ(object["error"]["kind"], kind);
    EXPECT_NE(ran.err.find(text), std::string::npos) << ran.err;
    EXPECT_EQ(ran.err, "rvkctl: " + object["error"]["text"].get<std::string>() + "\n");
}

} // namespace

TEST(NoDaemon, EachCauseHasItsText)
{
    const endpoint_folder folder;
    const std::string socket = folder.file("010a3b00.sock");
    expect_no_answer("no_socket", "no socket of board 1 (" + socket + ")");
    {
        fake_daemon daemon({.greetings = 0});
        expect_no_answer("no_answer", "(" + socket + "): is a firmware update running? try later");
    }
    setenv("APIPC_DIR", folder.file("none").c_str(), 1);
    expect_no_answer("no_directory", "no directory " + folder.file("none"));
}

TEST(NoDaemon, ADaemonThatDied)
{
    const endpoint_folder folder;
    {
        requester gone;
        ASSERT_EQ(gone.open(daemon_identity), endpoint_status::ok);
        // Its file goes with it; as one that was killed it leaves one.
        std::filesystem::create_hard_link(folder.file("010a3b00.sock"), folder.file("stale"));
    }
    std::filesystem::rename(folder.file("stale"), folder.file("010a3b00.sock"));
    expect_no_answer("nobody_listening", "nobody is listening for board 1");
}

TEST(NoDaemon, ADaemonThatDoesNotRead)
{
    const endpoint_folder folder;
    requester stopped, filler;
    ASSERT_EQ(stopped.open(daemon_identity), endpoint_status::ok);
    ASSERT_EQ(filler.open_free(1), endpoint_status::ok);
    const std::vector<uint8_t> message(message_head_bytes);
    while (filler.send(daemon_identity, message) == endpoint_status::ok) {}
    expect_no_answer("queue_full", "did not take the command within 60 ms");
}

TEST(NoDaemon, AFolderOrASocketThatIsNotForUs)
{
    const endpoint_folder folder;
    fake_daemon daemon;
    ASSERT_EQ(chmod(folder.file("010a3b00.sock").c_str(), 0600), 0);
    ASSERT_EQ(chmod(folder.path.c_str(), 0777), 0);
    {
        const powerless now;
        if (geteuid() == 65534) { expect_no_answer("no_permission", "no permission to send to board 1"); }
    }
    ASSERT_EQ(chmod(folder.path.c_str(), 0), 0);
    {
        const powerless now;
        expect_no_answer("no_permission", "no permission to use " + folder.path);
    }
    ASSERT_EQ(chmod(folder.path.c_str(), 0700), 0);
}

TEST(NoDaemon, IdentitiesAreSharedByManyAndTheCompanionsByOne)
{
    const endpoint_folder folder;
    fake_daemon daemon;
    requester companion;
    ASSERT_EQ(companion.open(identity_of(1, module_companion)), endpoint_status::ok);
    const said second = run_rvkctl({"--as", "0x3C", "hello"});
    EXPECT_EQ(second.status, 3);
    EXPECT_NE(second.err.find("010a3c00 is in use"), std::string::npos) << second.err;

    std::set<uint32_t> identities;
    std::vector<std::unique_ptr<requester>> others;
    for (int i = 0; i < 255; ++i) {
        others.push_back(std::make_unique<requester>());
        ASSERT_EQ(others.back()->open_free(1), endpoint_status::ok);
        identities.insert(others.back()->identity());
    }
    EXPECT_EQ(identities.size(), 255u);
    EXPECT_EQ(identities.count(identity_of(1, module_tools)), 0u) << "that is the module's own process";
    EXPECT_EQ(run_rvkctl({"hello"}).status, 3);
    EXPECT_EQ(run_rvkctl({"hello", "--as", "0x7E"}).status, 0);
    others.pop_back();
    EXPECT_EQ(run_rvkctl({"hello"}).status, 0);
}

TEST(NoDaemon, NothingIsLeftBehind)
{
    const endpoint_folder folder;
    EXPECT_EQ(run_rvkctl({"hello"}).status, 3);
    {
        fake_daemon daemon;
        EXPECT_EQ(run_rvkctl({"hello"}).status, 0);
    }
    EXPECT_TRUE(std::filesystem::is_empty(folder.path));
}
