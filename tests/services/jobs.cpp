#include "services/jobs.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/mutex.h"
#include "platform/platform.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sys/mount.h>
#include <unistd.h>
#include <utility>

namespace rvk {

int tool_status = 0;

namespace {

constexpr uint32_t job_requester = 0x010A7F01;

mutex commands_mtx;
std::vector<std::string> commands RVK_GUARDED_BY(commands_mtx);

std::vector<uint8_t> with_path(std::vector<uint8_t> fields, const std::string& path)
{
    std::copy(path.begin(), path.end(), std::back_inserter(fields));
    fields.push_back(0);
    return fields;
}

std::filesystem::path fresh_folder()
{
    static std::atomic<int> number{0};
    return "/root/files-" + std::to_string(getpid()) + "-" + std::to_string(number++);
}

} // namespace

file_job job_of(uint8_t code, uint32_t addr, std::span<const uint8_t> payload, uint8_t slot, uint16_t model)
{
    file_job job;
    uint8_t* head = job.message_head.data();
    store_le32(head + message::aptid, job_requester);
    store_le16(head + message::msg_class, static_cast<uint16_t>(data_class));
    head[message::id] = 254;
    head[message::code] = code;
    head[message::slot] = slot;
    store_le16(head + message::model, model);
    store_le16(head + message::seq, 77);
    store_le32(head + message::addr, addr);
    store_le16(head + message::len, static_cast<uint16_t>(payload.size()));
    std::copy_n(head + message::data_head, data_head_bytes, job.data_head.begin());
    std::copy(payload.begin(), payload.end(), job.data_head.begin() + data_head_bytes);
    return job;
}

std::vector<uint8_t> picture_payload(uint32_t hor, uint32_t ver, const std::string& path)
{
    std::vector<uint8_t> size(8);
    store_le32(size.data(), hor);
    store_le32(size.data() + 4, ver);
    return with_path(std::move(size), path);
}

std::vector<uint8_t> update_payload(uint32_t type, const std::string& path)
{
    std::vector<uint8_t> field(4);
    store_le32(field.data(), type);
    return with_path(std::move(field), path);
}

void write_bytes(const std::filesystem::path& path, std::span<const uint8_t> bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> bytes_of(const std::filesystem::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<std::string> take_commands()
{
    const scoped_lock hold(commands_mtx);
    return std::exchange(commands, {});
}

test_folder::test_folder(bool small) : path(fresh_folder()), mounted(small)
{
    std::filesystem::create_directories(path);
    if (small && mount("none", path.c_str(), "tmpfs", 0, "size=64k") != 0) { std::abort(); }
}

test_folder::~test_folder()
{
    if (mounted) { umount2(path.c_str(), MNT_DETACH); }
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

} // namespace rvk

int my_system(const char* line)
{
    {
        const rvk::scoped_lock hold(rvk::commands_mtx);
        rvk::commands.emplace_back(line);
    }
    const std::string command = line;
    return command.starts_with("/bin/") ? std::system(line) : rvk::tool_status;
}
