// What people type, and what they read: numbers, bytes, files, dumps. Shared by the tools that have a command line;
// each refusal is a failure of wrong usage that names the argument, its value, and what to give instead. Any thread.
#pragma once

#include "base/picture.h"

#include <array>
#include <chrono>
#include <cstdarg>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace rvk::tool {

// A decimal or 0x… number from least to most; throws a failure that names it, its value and the range. With base 16 a
// hexadecimal one, whose 0x may be left out.
uint64_t number_in(const char* name, const std::string& text, uint64_t least, uint64_t most, int base = 10);

// WxH in pixels, each side from least to 65,535 and less than 2^29 together; throws a failure.
picture_size size_in(const char* name, const std::string& text, uint32_t least);

// Fails when so many bytes from an address on run past the last one.
void check_space(uint32_t addr, uint64_t bytes);

// Bytes as hex digits in memory order, each word a whole number of bytes; throws a failure.
std::vector<uint8_t> bytes_of_hex(const char* name, const std::vector<std::string>& words);

// The bytes of a file or a pipe, 1 byte to 64 MiB. Throws a failure.
std::vector<uint8_t> bytes_of_file(const std::string& path);

// Writes a file anew; throws a failure (io_error).
void save(const std::string& path, std::span<const uint8_t> bytes);

// Text for a terminal: control bytes but line ends as \xNN, since names and answers come from elsewhere.
std::string printable_lines(const std::string& text);

std::string hex_text(std::span<const uint8_t> bytes); // lower case, no blanks

// Lines of sixteen bytes: address, bytes in pairs, printable ASCII. `xxd -r` reads it.
std::string hex_dump(uint32_t addr, std::span<const uint8_t> bytes);

std::string byte_count(uint64_t bytes); // "1 byte", "2 bytes"

// "33177600 bytes in 0.31 s, 107.0 MB/s" and a line end.
std::string rate_text(uint64_t bytes, double seconds);

// The absolute path, since the daemon runs in another folder; no ".." is taken out, so that the kernel finds the same
// file. Throws a failure that names the argument when it is empty or longer than `most` characters.
std::string absolute_path(const std::string& path, const char* name, size_t most);

uint64_t file_bytes(const std::string& path); // 0 when it cannot be had

// The BMP file of a picture in a card's layout, top line first. A BMP's pixel is blue, green, red and, with 32 bits,
// the byte that is not shown; its bottom line comes first. With 32 bits the file is what the daemon makes of a picture
// that it reads back, with other code for the pixels: the two can be compared.
// bits  32; or 24: lines are then padded to 4 bytes, and the byte that is not shown is lost
std::vector<uint8_t> bmp_of(std::span<const uint8_t> pixels, picture_size size, unsigned bits);

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
std::string format_list(const char* text, va_list arguments) __attribute__((format(printf, 1, 0)));

// Names of an enumeration's first `count` values, as the compiler tells them.
template <auto value>
constexpr std::string_view enumerator()
{
    const std::string_view text = __PRETTY_FUNCTION__; // "… value = rvk::fault::loss; …" or "… = rvk::fault::loss]"
    const size_t end = text.find_first_of(";]", text.find("value = "));
    const size_t begin = text.rfind(':', end) + 1;
    return text.substr(begin, end - begin);
}
template <typename Enum, size_t count>
inline constexpr auto enumerators = []<size_t... i>(std::index_sequence<i...>)
{
    return std::array{enumerator<static_cast<Enum>(i)>()...};
}
(std::make_index_sequence<count>());

} // namespace rvk::tool
