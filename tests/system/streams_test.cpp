// Standard streams that are closed, full or without a reader, and dispositions inherited from whoever starts us.
#include "system/daemon.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <unistd.h>

using namespace rvk;

TEST(Streams, AReaderThatGoesAwayEndsNothing)
{
    daemon_process d({"-d", "-f"});
    conversation requester;
    ASSERT_TRUE(requester.is_greeted());
    d.stop_listening();
    for (int i = 0; i < 200; ++i) { ASSERT_TRUE(requester.is_greeted()); }
    const std::vector<uint8_t> foreign = requester.pack({.type = 2});
    for (int i = 0; i < 20; ++i) { requester.tell(foreign); } // printed whatever the switches
    ASSERT_TRUE(requester.is_greeted());
    EXPECT_EQ(d.end_by(SIGTERM, last_words), 0);
    EXPECT_EQ(fault_in_last_words(file_text(log_files[0])), "");
}

TEST(Streams, AReaderThatStallsDoesNotKeepTheProcessFromItsEnd)
{
    for (const int number : deadly_signals()) {
        SCOPED_TRACE(number);
        daemon_process d({"-d"});
        d.shrink_pipe();
        conversation requester;
        const std::vector<uint8_t> greeting = requester.pack({.code = command::greeting});
        const bool stalled = comes_true([&] {
            requester.tell(greeting);
            return !d.output().empty() || requester.receive(milliseconds{500}).empty();
        });
        ASSERT_TRUE(stalled);
        d.signal(number);
        EXPECT_EQ(d.end(last_words, false), 0);
    }
}

// What the daemon opens later must not get the number of a standard stream.
TEST(Streams, ClosedOnesAreOpenedOnNothing)
{
    void (*const closers[])() = {
        [] { close(0); },
        [] { close(1); },
        [] { close(2); },
        [] {
            for (int fd = 0; fd < 3; ++fd) { close(fd); }
        },
    };
    for (size_t i = 0; i < std::size(closers); ++i) {
        SCOPED_TRACE(i);
        child_setup setup = daemon_setup();
        setup.before_exec = closers[i];
        daemon_process d({"-d", "-f"}, setup);
        ASSERT_TRUE(conversation().is_greeted());
        for (size_t fd = 0; fd < 3; ++fd) {
            if (i != fd && i != 3) { continue; }
            const std::string link = "/proc/" + std::to_string(d.pid()) + "/fd/" + std::to_string(fd);
            EXPECT_EQ(std::filesystem::read_symlink(link), "/dev/null");
        }
        EXPECT_EQ(d.end_by(SIGTERM), 0);
        EXPECT_EQ(fault_in_last_words(file_text(log_files[0])), "");
    }
}

TEST(Streams, InheritedDispositionsDoNotMatter)
{
    child_setup setup = daemon_setup();
    setup.before_exec = [] {
        for (const int number : {SIGCHLD, SIGPIPE, SIGTERM, SIGINT, SIGQUIT, SIGALRM}) { signal(number, SIG_IGN); }
        sigset_t every;
        sigfillset(&every);
        sigprocmask(SIG_SETMASK, &every, nullptr);
    };
    for (const int number : deadly_signals()) {
        SCOPED_TRACE(number);
        daemon_process d({"-d"}, setup);
        ASSERT_TRUE(conversation().is_greeted());
        EXPECT_FALSE(mask_of(std::to_string(d.pid()), "SigIgn").has(SIGCHLD));
        EXPECT_EQ(d.end_by(number, last_words), 0);
        EXPECT_EQ(fault_in_last_words(d.output()), "");
    }
}
