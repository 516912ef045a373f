#include "command/values.h"

#include "command/failure.h"

#include <algorithm>
#include <cassert>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <new>
#include <sstream>

namespace rvk::tool {
namespace {

constexpr size_t dump_line_bytes = 16;
constexpr size_t file_step_bytes = 64 * 1024, file_bytes_max = 64u << 20; // ours

bool has_hex_prefix(const std::string& text) { return text.size() > 1 && text[0] == '0' && (text[1] | 0x20) == 'x'; }

// base  of a number without 0x
bool parse(const std::string& text, int base, uint64_t& out)
{
    const bool prefix = text.size() > 2 && has_hex_prefix(text);
    if (prefix) { base = 16; }
    const char* const end = text.data() + text.size();
    const auto [rest, error] = std::from_chars(text.data() + (prefix ? 2 : 0), end, out, base);
    return error == std::errc{} && rest == end;
}

void append_word(const char* name, const std::string& word, std::vector<uint8_t>& out)
{
    const auto refuse = [&](const std::string& why) {
        fail(problem::wrong_usage, "%s \"%s\": %s", name, word.c_str(), why.c_str());
    };
    if (has_hex_prefix(word)) { refuse("give hex digits in memory order, lowest address first, without 0x"); }
    const auto wrong = std::find_if(word.begin(), word.end(), [](unsigned char c) { return std::isxdigit(c) == 0; });
    if (wrong != word.end()) { refuse(format("'%c' is not a hex digit", *wrong)); }
    if (word.size() % 2 != 0) {
        refuse(format("%zu hex digits are no whole number of bytes, give two for each", word.size()));
    }
    for (const char* at = word.data(); at != word.data() + word.size(); at += 2) {
        std::from_chars(at, at + 2, out.emplace_back(), 16);
    }
}

struct close_file {
    void operator()(FILE* file) const { fclose(file); }
};
struct free_text {
    void operator()(char* text) const { free(text); }
};
using owned_file = std::unique_ptr<FILE, close_file>;

void append_dump_line(std::string& out, uint64_t addr, std::span<const uint8_t> bytes)
{
    out += format("%08" PRIx64 ":", addr);
    std::string ascii;
    for (size_t i = 0; i < dump_line_bytes; ++i) {
        out += i % 2 == 0 ? " " : "";
        out += i < bytes.size() ? format("%02x", bytes[i]) : "  ";
        if (i < bytes.size()) { ascii += bytes[i] >= 0x20 && bytes[i] < 0x7F ? static_cast<char>(bytes[i]) : '.'; }
    }
    out += "  " + ascii + "\n";
}

// One line. No thread shares either buffer, and ThreadSanitizer would take seconds to look at each byte of a picture.
__attribute__((no_sanitize("thread"))) void turn_line(const uint8_t* from, uint8_t* to, uint32_t hor, unsigned bits)
{
    for (uint32_t x = 0; x < hor; ++x, from += 4, to += bits / 8) {
        to[0] = from[3];
        to[1] = from[2];
        to[2] = from[1];
        if (bits == 32) { to[3] = from[0]; }
    }
}

} // namespace

uint64_t number_in(const char* name, const std::string& text, uint64_t least, uint64_t most, int base)
{
    uint64_t value = 0;
    if (parse(text, base, value) && value >= least && value <= most) { return value; }
    const std::string range =
        base == 10
            ? format("number from %" PRIu64 " to %" PRIu64 " (0x%" PRIx64 "), decimal or 0x…", least, most, most)
            : format("hexadecimal number from %" PRIx64 " to %" PRIx64 " (%" PRIu64 " decimal)", least, most, most);
    fail(problem::wrong_usage, "%s \"%s\": give a %s", name, text.c_str(), range.c_str());
}

picture_size size_in(const char* name, const std::string& text, uint32_t least)
{
    const size_t by = text.find('x', text.starts_with("0x") ? 2 : 0);
    if (by == std::string::npos) {
        fail(problem::wrong_usage, "%s \"%s\": give WxH, as 3840x2160", name, text.c_str());
    }
    const auto side = [&](const char* which, const std::string& part) {
        return static_cast<uint32_t>(number_in(format("%s of %s", which, name).c_str(), part, least, side_max));
    };
    const picture_size size{side("width", text.substr(0, by)), side("height", text.substr(by + 1))};
    if (uint64_t{size.hor} * size.ver <= pixels_max) { return size; }
    fail(problem::wrong_usage, "%s \"%s\": a picture has at most 536870911 pixels", name, text.c_str());
}

void check_space(uint32_t addr, uint64_t bytes)
{
    if (bytes <= uint64_t{UINT32_MAX} + 1 - addr) { return; }
    fail(problem::wrong_usage, "%" PRIu64 " bytes from 0x%08x on run past the last address, 0xffffffff", bytes, addr);
}

std::vector<uint8_t> bytes_of_hex(const char* name, const std::vector<std::string>& words)
{
    std::vector<uint8_t> out;
    for (const std::string& argument : words) {
        std::istringstream in(argument);
        for (std::string word; in >> word;) { append_word(name, word, out); }
    }
    if (out.empty()) { fail(problem::wrong_usage, "%s is empty: nothing to write", name); }
    return out;
}

std::vector<uint8_t> bytes_of_file(const std::string& path)
{
    const auto refuse = [&](const std::string& why) {
        fail(problem::wrong_usage, "file \"%s\" %s", path.c_str(), why.c_str());
    };
    const owned_file file{fopen(path.c_str(), "rbe")};
    if (!file) { refuse(std::string("cannot be opened: ") + strerror(errno)); }
    std::vector<uint8_t> out;
    for (size_t got = file_step_bytes; got == file_step_bytes;) {
        const size_t before = out.size();
        out.resize(before + file_step_bytes);
        got = fread(out.data() + before, 1, file_step_bytes, file.get());
        out.resize(before + got);
        if (out.size() > file_bytes_max) { refuse("has more than 64 MiB"); }
    }
    if (ferror(file.get()) != 0) { refuse(std::string("cannot be read: ") + strerror(errno)); }
    if (out.empty()) { refuse("is empty: nothing to write"); }
    return out;
}

void save(const std::string& path, std::span<const uint8_t> bytes)
{
    const auto refuse = [&](const char* why) {
        fail(problem::io_error, "%s: %s: %s", path.c_str(), why, strerror(errno));
    };
    FILE* file = fopen(path.c_str(), "wbe");
    if (file == nullptr) { refuse("cannot be created"); }
    const bool whole = fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    const bool closed = fclose(file) == 0; // what was buffered fails here when the disk is full
    if (!whole || !closed) { refuse("cannot be written whole"); }
}

std::string printable_lines(const std::string& text)
{
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<uint8_t>(c);
        const bool control = (byte < 0x20 && c != '\n') || byte == 0x7F;
        out += control ? format("\\x%02x", byte) : std::string(1, c);
    }
    return out;
}

std::string hex_text(std::span<const uint8_t> bytes)
{
    std::string out;
    for (const uint8_t byte : bytes) { out += format("%02x", byte); }
    return out;
}

std::string hex_dump(uint32_t addr, std::span<const uint8_t> bytes)
{
    std::string out;
    for (size_t at = 0; at < bytes.size(); at += dump_line_bytes) {
        append_dump_line(out, uint64_t{addr} + at, bytes.subspan(at, std::min(dump_line_bytes, bytes.size() - at)));
    }
    return out;
}

std::string byte_count(uint64_t bytes) { return std::to_string(bytes) + (bytes == 1 ? " byte" : " bytes"); }

std::string rate_text(uint64_t bytes, double seconds)
{
    return format("%s in %.2f s, %.1f MB/s\n", byte_count(bytes).c_str(), seconds,
                  seconds > 0 ? static_cast<double>(bytes) / seconds / 1e6 : 0.0);
}

std::string absolute_path(const std::string& path, const char* name, size_t most)
{
    if (path.empty()) { fail(problem::wrong_usage, "%s \"\": give the path of a file", name); }
    std::string absolute = std::filesystem::absolute(path).string(); // no ".." is taken out: a folder may be a link
    if (absolute.size() <= most) { return absolute; }
    fail(problem::wrong_usage, "%s \"%s\" has %zu characters as an absolute path, at most %zu", name, absolute.c_str(),
         absolute.size(), most);
}

uint64_t file_bytes(const std::string& path)
{
    std::error_code error;
    const uint64_t bytes = std::filesystem::file_size(path, error);
    return error ? 0 : bytes;
}

std::vector<uint8_t> bmp_of(std::span<const uint8_t> pixels, picture_size size, unsigned bits)
{
    assert((bits == 24 || bits == 32) && pixels.size() >= picture_bytes(size));
    const size_t line = bmp_line_bytes(size.hor, bits);
    std::vector<uint8_t> file(bmp::head_bytes + line * size.ver);
    std::ranges::copy(bmp_head(size, bits), file.begin());
    for (uint32_t y = 0; y < size.ver; ++y) {
        const uint8_t* from = pixels.data() + y * line_bytes(size); // a line may have no pixels
        turn_line(from, file.data() + bmp::head_bytes + (size.ver - 1 - y) * line, size.hor, bits);
    }
    return file;
}

std::string format_list(const char* text, va_list arguments)
{
    char* made = nullptr;
    const int length = vasprintf(&made, text, arguments);
    if (length < 0) { throw std::bad_alloc(); }
    const std::unique_ptr<char, free_text> owned{made};
    return {made, static_cast<size_t>(length)};
}

std::string format(const char* text, ...)
{
    va_list arguments;
    va_start(arguments, text);
    std::string made = format_list(text, arguments);
    va_end(arguments);
    return made;
}

} // namespace rvk::tool
