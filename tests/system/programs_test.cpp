// The programs together, as a person starts them.
#include "system/daemon.h"

#include <gtest/gtest.h>

#include <csignal>
#include <memory>

using namespace rvk;

TEST(Programs, AClientTheDaemonAndTheCards)
{
    const auto rvkctl = [](std::vector<std::string> arguments) {
        arguments.insert(arguments.begin(), program("rvkctl"));
        return std::make_unique<child>(arguments);
    };
    EXPECT_EQ(rvkctl({"hello"})->end(), 3) << "no daemon";
    child cards({program("rvk-cardsim")});
    ASSERT_TRUE(cards.shows("ready"));
    daemon_process d;
    ASSERT_TRUE(conversation().is_greeted());
    const struct {
        std::vector<std::string> arguments;
        int status;
        const char* shows;
    } rows[] = {
        {{"hello"}, 0, "Hello, I am rvk module!"},
        {{"--timeout", "30000", "write", "2", "0x1000", "c0ffee"}, 0, ""},
        {{"--timeout", "30000", "read", "2", "0x1000", "3"}, 0, "c0ff ee"},
        {{"read", "2", "0x1000", "1401"}, 2, ""},
        {{"--as", "0x3B", "hello"}, 2, ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.arguments.back());
        const auto client = rvkctl(row.arguments);
        EXPECT_EQ(client->end(), row.status);
        EXPECT_NE(client->output().find(row.shows), std::string::npos) << client->output();
    }
    EXPECT_EQ(d.end_by(SIGTERM), 0);
    cards.signal(SIGTERM);
    EXPECT_EQ(cards.end(), 0);
}
