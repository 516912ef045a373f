// What people type, and what they read: numbers, bytes, dumps.
#pragma once

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace rvk::ctl {

// A decimal or 0x… number from least to most; throws a failure that names it, its value and the range.
uint64_t number_in(const char* name, const std::string& text, uint64_t least, uint64_t most);

// Bytes as hex digits in memory order, each word a whole number of bytes; throws a failure.
std::vector<uint8_t> bytes_of_hex(const std::vector<std::string>& words);

// The bytes of a file, at least one and at most `most`; throws a failure.
std::vector<uint8_t> bytes_of_file(const std::string& path, uint64_t most);

// Writes a file anew; throws a failure.
void write_file(const std::string& path, std::span<const uint8_t> bytes);

std::string hex_text(std::span<const uint8_t> bytes); // lower case, no blanks

// Lines of sixteen bytes: address, bytes in pairs, printable ASCII. `xxd -r` reads it.
std::string hex_dump(uint32_t addr, std::span<const uint8_t> bytes);

std::string byte_count(uint64_t bytes); // "1 byte", "2 bytes"

// "33177600 bytes in 0.31 s, 107.0 MB/s" and a line end.
std::string rate_text(uint64_t bytes, double seconds);

// A path as the daemon needs it, which runs in another folder; throws a failure that names the argument when it is
// longer than `most` characters.
std::string absolute_path(const std::string& path, const char* name, size_t most);

uint64_t file_bytes(const std::string& path); // 0 when it cannot be had

// Time since it was made.
class stop_watch {
public:
    [[nodiscard]] double seconds() const
    {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    }

private:
    std::chrono::steady_clock::time_point started = std::chrono::steady_clock::now();
};

// printf into a string.
std::string format(const char* text, ...) __attribute__((format(printf, 1, 2)));

} // namespace rvk::ctl
