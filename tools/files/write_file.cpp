#include "files/write_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace rvk {

std::string write_file(const std::string& path, std::span<const uint8_t> bytes)
{
    FILE* file = std::fopen(path.c_str(), "wbe");
    if (file == nullptr) { return path + ": cannot be created: " + std::strerror(errno); }
    const bool whole = std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    const bool closed = std::fclose(file) == 0; // what was buffered fails here when the disk is full
    if (whole && closed) { return {}; }
    return path + ": cannot be written whole: " + std::strerror(errno);
}

} // namespace rvk
