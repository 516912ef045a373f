// A picture's file, and the command that has rvkd write it to the cards.
#pragma once

#include "base/picture.h"

#include <cstdint>
#include <string>
#include <vector>

namespace rvk::bench {

// Makes a file, in the bench's memory. Fails when there is not enough.
void make_file(const std::string& path, const std::vector<uint8_t>& bytes);

// Bytes that no neighbour shares: what is lost, moved or black shows.
[[nodiscard]] std::vector<uint8_t> patterned_bytes(size_t count);

class picture_job {
public:
    picture_job(picture_size size, uint32_t buffer); // makes the file, which goes with it
    ~picture_job();
    picture_job(const picture_job&) = delete;
    picture_job& operator=(const picture_job&) = delete;

    [[nodiscard]] const std::vector<uint8_t>& command() const { return message; }
    [[nodiscard]] const std::vector<uint8_t>& bytes() const { return pixels; }
    [[nodiscard]] const std::string& path() const { return file; }

private:
    std::string file = "/run/rvk-bench/picture.txt";
    std::vector<uint8_t> pixels, message;
};

} // namespace rvk::bench
