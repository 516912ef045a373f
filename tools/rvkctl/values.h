// What people type, and what they read: numbers, bytes, dumps.
#pragma once

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

// printf into a string.
std::string format(const char* text, ...) __attribute__((format(printf, 1, 2)));

} // namespace rvk::ctl
