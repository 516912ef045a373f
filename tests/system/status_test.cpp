// The status files of a real daemon, as its client shows them: while it does what it does, and when it cannot any more.
#include "system/cards.h"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <fstream>
#include <sys/stat.h>

using namespace rvk;

namespace {

constexpr char status_folder[] = "/run/rvkd";

class Status : public FilesTest {
protected:
    // Runs `rvkctl status` as somebody without any privilege. Result: its JSON object.
    static nlohmann::json status_now(int expected)
    {
        child client({"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--inh-caps=-all",
                      program("rvkctl"), "--json", "status"});
        EXPECT_EQ(client.end(), expected) << client.output();
        return nlohmann::json::parse(client.output());
    }
};

} // namespace

TEST_F(Status, ShowsAnUpdateWhileItBlocksEveryCommand)
{
    const std::string image = file("fw.bin", content(1, 200'000));
    farm.set_faults({.delay = 1.0, .delay_ms = 30});
    const auto client = start_rvkctl({"update", image, "--type", "fpga-1a", "--slot", "5"});
    nlohmann::json seen;
    ASSERT_TRUE(comes_true([&] {
        seen = status_now(0)["status"];
        return seen["transfer_bytes"]["firmware"] > 0;
    }));
    EXPECT_GT(seen["transfer_total_bytes"]["firmware"], 200'000);
    EXPECT_EQ(rvkctl({"hello", "--timeout", "100"}), 3);
    EXPECT_TRUE(comes_true([] { return status_now(0)["status"]["dropped_in_update"] == 1; }));
    farm.set_faults({});
    EXPECT_EQ(client->end(), 0);
    EXPECT_TRUE(comes_true([] { return status_now(0)["status"]["jobs_done"]["update"] == 1; }));
    EXPECT_EQ(status_now(0)["status"]["transfer_total_bytes"]["firmware"], 0);
}

TEST_F(Status, GrowsOldWithItsDaemon)
{
    EXPECT_EQ(status_now(0)["status"]["pid"], d->pid());
    struct stat facts {};
    for (const char* name : {"/status.json", "/status.prom"}) {
        ASSERT_EQ(stat((status_folder + std::string(name)).c_str(), &facts), 0);
        EXPECT_EQ(facts.st_mode & 0777, 0644u);
    }
    kill_daemon();
    EXPECT_TRUE(comes_true([] {
        child client({program("rvkctl"), "status"});
        return client.end() == 3;
    }));
    nlohmann::json old = status_now(3);
    EXPECT_EQ(old["error"]["kind"], "old_status");
    old["status"]["boot_ms"] = uint64_t{1} << 50;
    std::ofstream(status_folder + std::string("/status.json")) << old["status"];
    EXPECT_EQ(status_now(3)["error"]["kind"], "old_status") << "of the machine's run before this";
    std::filesystem::remove_all(status_folder);
    EXPECT_EQ(status_now(3)["error"]["kind"], "no_status");
}

TEST_F(Status, WhatCannotBeWrittenIsSaidOnce)
{
    kill_daemon();
    child_setup setup = daemon_setup();
    const std::string folder = in_folder("status");
    setup.environment.push_back("RVK_STATUS_DIR=" + folder + "/nowhere");
    start_daemon(setup, {"-f"});
    const auto said = [&] { return file_text(log_files[0]); };
    EXPECT_TRUE(comes_true([&] { return said().find("no status in " + folder) != std::string::npos; }));
    std::filesystem::create_directories(folder);
    EXPECT_TRUE(comes_true([&] { return said().find("is written again") != std::string::npos; }));
    EXPECT_TRUE(std::filesystem::exists(folder + "/nowhere/status.prom"));
    EXPECT_EQ(said().find("no status in"), said().rfind("no status in"));
}
