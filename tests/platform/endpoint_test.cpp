// Binding: who gets an identity, who is refused, and what lies in the folder afterwards.
#include "platform/local/endpoint.h"

#include "platform/endpoint_folder.h"
#include "platform/platform.h"
#include "support/log_capture.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

using namespace rvk;

namespace {

constexpr uint32_t identity = 0x010A3B00;
constexpr char socket_name[] = "010a3b00.sock";

mode_t mode_of(const std::string& path)
{
    struct stat entry {};
    return stat(path.c_str(), &entry) == 0 ? entry.st_mode & 0777 : 0;
}

// Gives up what apipc_init got for this process.
void end_process_endpoint() { unique_fd{local::process_endpoint.exchange(-1)}; }

// A child that waits for the start, binds, tells how it went, and stays alive until its input ends.
struct racer {
    pid_t pid;
    unique_fd result;
};

racer start_racer(int start)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0) { abort(); }
    const pid_t pid = fork();
    if (pid == 0) {
        char byte = 0;
        if (read(start, &byte, 1) < 0) { _exit(1); }
        unique_fd fd;
        const int error = local::bind_endpoint(identity, fd);
        if (write(ends[1], &error, sizeof error) < 0) { _exit(1); }
        pause();
        _exit(0);
    }
    close(ends[1]);
    return {pid, unique_fd{ends[0]}};
}

// Result: how many of several that start at once got the identity.
int race(int racers)
{
    int start[2];
    if (pipe2(start, O_CLOEXEC) != 0) { abort(); }
    std::vector<racer> all;
    for (int i = 0; i < racers; ++i) { all.push_back(start_racer(start[0])); }
    const std::string go(static_cast<size_t>(racers), 'g');
    EXPECT_EQ(write(start[1], go.data(), go.size()), racers);
    int winners = 0;
    for (const racer& r : all) {
        int error = -1;
        EXPECT_EQ(read(r.result.get(), &error, sizeof error), static_cast<ssize_t>(sizeof error));
        EXPECT_TRUE(error == 0 || error == EADDRINUSE) << strerror(error);
        winners += error == 0;
    }
    for (const racer& r : all) {
        kill(r.pid, SIGKILL);
        waitpid(r.pid, nullptr, 0);
    }
    close(start[0]);
    close(start[1]);
    return winners;
}

} // namespace

TEST(Endpoint, StaleIsTakenOverAliveIsRefused)
{
    const endpoint_folder folder;
    unique_fd first, second;
    ASSERT_EQ(local::bind_endpoint(identity, first), 0);
    EXPECT_TRUE(local::endpoint_alive(identity));
    EXPECT_EQ(local::bind_endpoint(identity, second), EADDRINUSE);
    first.reset(); // as a process that was killed: its file stays
    EXPECT_EQ(mode_of(folder.file(socket_name)), 0660u);
    EXPECT_FALSE(local::endpoint_alive(identity));
    EXPECT_EQ(local::bind_endpoint(identity, second), 0);
    EXPECT_TRUE(local::endpoint_alive(identity));
}

TEST(Endpoint, OneOfManyThatStartAtOnceWins)
{
    const endpoint_folder folder;
    for (int round = 0; round < 60; ++round) { ASSERT_EQ(race(4), 1) << "round " << round; }
}

TEST(Endpoint, OnlyASocketIsEverRemoved)
{
    const endpoint_folder folder;
    const std::string path = folder.file(socket_name);
    unique_fd{open(path.c_str(), O_CREAT | O_WRONLY | O_CLOEXEC, 0600)};
    take_log();
    EXPECT_NE(apipc_init(identity, 0), 0);
    EXPECT_EQ(logged("not a socket"), 1u);
    EXPECT_EQ(access(path.c_str(), F_OK), 0);
}

TEST(Endpoint, FolderAndSocketHaveTheirModesWhateverTheUmask)
{
    for (const mode_t mask : {mode_t{0}, mode_t{077}}) {
        const endpoint_folder folder;
        setenv("APIPC_DIR", folder.file("made").c_str(), 1);
        const mode_t before = umask(mask);
        EXPECT_EQ(apipc_init(identity, 0), 0);
        umask(before);
        EXPECT_EQ(mode_of(folder.file("made")), 0770u);
        EXPECT_EQ(mode_of(folder.file("made") + "/" + socket_name), 0660u);
        end_process_endpoint();
    }
}

TEST(Endpoint, AFolderThatDoesNotFitIsRefusedByName)
{
    const endpoint_folder folder;
    // A socket's address has 108 bytes: 93 for the folder, a slash, 13 for the name, a zero.
    const std::string longest = folder.path + "/" + std::string(93 - 1 - folder.path.size(), 'x');
    setenv("APIPC_DIR", longest.c_str(), 1);
    EXPECT_EQ(apipc_init(identity, 0), 0);
    end_process_endpoint();
    const std::string too_long = longest + "y";
    setenv("APIPC_DIR", too_long.c_str(), 1);
    take_log();
    EXPECT_NE(apipc_init(identity, 0), 0);
    EXPECT_EQ(logged(too_long), 1u);
    EXPECT_NE(access(too_long.c_str(), F_OK), 0) << "a folder was made that cannot be used";
}

TEST(Endpoint, AProcessRegistersOnce)
{
    const endpoint_folder folder;
    ASSERT_EQ(apipc_init(identity, 0), 0);
    EXPECT_NE(apipc_init(identity + 1, 0), 0);
    end_process_endpoint();
}
