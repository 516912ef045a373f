// File jobs as the dispatch hands them over, and the files they are about. What they ask the platform for is recorded.
#pragma once

#include "ap_msg/mailbox.h"
#include "link/bench_link.h"
#include "link/collector.h"

#include <cstdint>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

namespace rvk {

struct file_job {
    mailbox_area message_head{}, data_head{};
};

// A job of this command for slot 1 of model 0, with a payload as it stands.
[[nodiscard]] file_job job_of(uint8_t code, uint32_t addr, std::span<const uint8_t> payload, uint8_t slot = 1,
                              uint16_t model = 0);

// Size and path of a picture job; type and path of an update. The path's zero byte included.
[[nodiscard]] std::vector<uint8_t> picture_payload(uint32_t hor, uint32_t ver, const std::string& path);
[[nodiscard]] std::vector<uint8_t> update_payload(uint32_t type, const std::string& path);

void write_bytes(const std::filesystem::path& path, std::span<const uint8_t> bytes);
[[nodiscard]] std::vector<uint8_t> bytes_of(const std::filesystem::path& path);

// The command lines that the daemon ran since the last call. Commands that make or remove files are run, others are
// not: they end with tool_status.
[[nodiscard]] std::vector<std::string> take_commands();
extern int tool_status;

// A folder of a test's own, gone at its end. `small` makes it a file system of 64 KiB.
class test_folder {
public:
    explicit test_folder(bool small = false);
    ~test_folder();
    test_folder(const test_folder&) = delete;
    test_folder& operator=(const test_folder&) = delete;
    [[nodiscard]] std::string operator/(const std::string& name) const { return (path / name).string(); }
    const std::filesystem::path path;

private:
    bool mounted;
};

// A link test that starts with nothing recorded or collected, in a folder of its own.
class FileServiceTest : public LinkTest {
protected:
    void SetUp() override
    {
        LinkTest::SetUp();
        static_cast<void>(take_messages());
        static_cast<void>(take_commands());
    }
    test_folder folder;
};

} // namespace rvk
