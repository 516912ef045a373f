#include "ap_msg/picture_file.h"

#include "base/bytes.h"
#include "base/fd.h"
#include "main/log.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <new>
#include <string_view>

namespace rvk {
namespace {

constexpr size_t bmp_offset_at = 10;  // bmp: where the offset of its pixels stands
constexpr size_t bmp_offset_end = 14; // bmp

bool ends_in(const char* path, std::string_view suffix) { return std::string_view{path}.ends_with(suffix); }

std::span<const uint8_t> log_too_small(size_t file_bytes, picture_size size)
{
    log_print(LOG_HERE, "\nfile size error, hor=%d, ver=%d, filesize=%zu\n", static_cast<int>(size.hor),
              static_cast<int>(size.ver), file_bytes);
    return {};
}

// A file that does not fit the 32-bit sizes that pictures have is one for which there is no memory.
std::unique_ptr<page_buffer> room_for(off_t bytes)
{
    std::unique_ptr<page_buffer> buffer;
    if (bytes <= INT_MAX) { buffer.reset(new (std::nothrow) page_buffer(static_cast<size_t>(bytes))); }
    if (buffer && *buffer) { return buffer; }
    log_print(LOG_HERE, "\nmalloc p failed\n");
    return nullptr;
}

} // namespace

std::unique_ptr<page_buffer> read_picture_file(const char* path, picture_size size)
{
    const bool found = access(path, F_OK) == 0;
    log_print(LOG_HERE, "%s file %s\n", found ? "found" : "not found", printable(path).text);
    if (!found) { return nullptr; }
    const unique_fd file = open_regular(path, O_RDONLY);
    const off_t bytes = file ? size_of(file) : -1;
    if (bytes < 0) {
        const char* const why = open_failure();
        log_print(LOG_HERE, "open file %s failed\n", printable(path).text);
        log_print(LOG_HERE, "%s\n", why);
        return nullptr;
    }
    log_print(LOG_HERE, " hor=%d, ver=%d, filesize=%lld\n", static_cast<int>(size.hor), static_cast<int>(size.ver),
              static_cast<long long>(bytes));
    std::unique_ptr<page_buffer> buffer = room_for(bytes);
    if (!buffer) { return nullptr; }
    if (read_full(file, buffer->bytes()) < buffer->bytes().size()) {
        log_print(LOG_HERE, "\nfread failed\n");
        return nullptr;
    }
    return buffer;
}

std::span<const uint8_t> pixels_of(std::span<const uint8_t> file, const char* path, picture_size size)
{
    const size_t wanted = picture_bytes(size);
    size_t offset = 0;
    if (ends_in(path, ".bmp")) {
        if (file.size() < bmp_offset_end) { return log_too_small(file.size(), size); }
        const auto carried = static_cast<int32_t>(load_le32(file.data() + bmp_offset_at));
        log_print(LOG_HERE, "offset = %d\n", carried);
        if (carried <= 0) { return log_too_small(file.size(), size); }
        offset = static_cast<size_t>(carried);
    }
    if (offset > file.size() || file.size() - offset < wanted) { return log_too_small(file.size(), size); }
    return file.subspan(offset, wanted);
}

bool has_known_format(const char* path) { return ends_in(path, ".bmp") || ends_in(path, ".txt"); }

} // namespace rvk
