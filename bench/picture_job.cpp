// See the header.
#include "picture_job.h"

#include "ap_msg/message.h"
#include "asking.h"
#include "base/bytes.h"
#include "harness.h"

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace rvk::bench {

void make_file(const std::string& path, const std::vector<uint8_t>& bytes)
{
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    if (!out.flush()) { fail("no space for " + path); }
}

std::vector<uint8_t> patterned_bytes(size_t count)
{
    std::vector<uint8_t> bytes(count);
    uint32_t state = 1;
    for (uint8_t& b : bytes) {
        state = state * 1664525 + 1013904223;
        b = static_cast<uint8_t>(state >> 24 | 1);
    }
    return bytes;
}

picture_job::picture_job(picture_size size, uint32_t buffer) : pixels(patterned_bytes(picture_bytes(size)))
{
    make_file(file, pixels);
    std::vector<uint8_t> payload(rvk::picture_job::path + file.size() + 1); // the last stays zero
    store_le32(&payload[rvk::picture_job::hor], size.hor);
    store_le32(&payload[rvk::picture_job::ver], size.ver);
    std::copy(file.begin(), file.end(), payload.begin() + rvk::picture_job::path);
    message = command_message(command::file_write, buffer, payload.size(), payload);
}

picture_job::~picture_job() { std::filesystem::remove(file); }

} // namespace rvk::bench
