// Binding: who gets an identity, who is refused, and what lies in the folder afterwards.
#include "platform/local/endpoint.h"

#include "platform/platform.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <thread>

using namespace rvk;

namespace {

// Private, empty at first, gone with its guard: a daemon on this machine is not touched.
struct endpoint_folder {
    endpoint_folder() { EXPECT_TRUE(mkdtemp(path.data()) && setenv("APIPC_DIR", path.c_str(), 1) == 0); }
    ~endpoint_folder() { std::filesystem::remove_all(path); }

    std::string path = "/tmp/rvk-endpoints-XXXXXX";
};

constexpr uint32_t identity = 0x010A3B00;
constexpr char socket_name[] = "/010a3b00.sock";

// Binds this process's endpoint and gives it up again. Result: whether it was had.
bool registers()
{
    const bool bound = apipc_init(identity, 0) == 0;
    EXPECT_TRUE(!bound || apipc_init(identity + 1, 0) != 0) << "a process registers once";
    unique_fd{local::process_endpoint.exchange(-1)};
    return bound;
}

} // namespace

TEST(Endpoint, StaleIsTakenOverByOneAliveIsRefused)
{
    const endpoint_folder folder;
    for (int round = 0; round < 50; ++round) { // the first finds none, the others the one before, dead
        EXPECT_FALSE(local::endpoint_alive(identity));
        std::array<unique_fd, 4> bound;
        std::vector<std::thread> racers;
        std::atomic<int> ready{0}, refused{0};
        for (unique_fd& fd : bound) {
            racers.emplace_back([&] {
                for (++ready; ready < 4;) { std::this_thread::yield(); } // all at once
                refused += local::bind_endpoint(identity, fd) == EADDRINUSE;
            });
        }
        for (std::thread& racer : racers) { racer.join(); }
        ASSERT_EQ(refused, 3) << "round " << round;
        EXPECT_TRUE(local::endpoint_alive(identity));
    }
}

TEST(Endpoint, WhatStandsInItsPlace)
{
    const endpoint_folder folder;
    // A socket's address has 108 bytes: 93 for the folder, a slash, 13 for the name, a zero.
    const std::string longest = folder.path + "/" + std::string(93 - 1 - folder.path.size(), 'x');
    setenv("APIPC_DIR", longest.c_str(), 1);
    EXPECT_TRUE(registers() &&
                std::filesystem::status(longest + socket_name).permissions() == std::filesystem::perms{0660});
    setenv("APIPC_DIR", (longest + "y").c_str(), 1);
    EXPECT_TRUE(!registers() && !std::filesystem::exists(longest + "y")) << "a folder was made that cannot be used";
    setenv("APIPC_DIR", folder.path.c_str(), 1);
    std::ofstream(folder.path + socket_name) << "a file";
    EXPECT_TRUE(!registers() && std::filesystem::exists(folder.path + socket_name)) << "only a socket is ever removed";
}
