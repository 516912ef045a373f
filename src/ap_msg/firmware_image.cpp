#include "ap_msg/firmware_image.h"

#include "ap_msg/firmware.h"
#include "base/bytes.h"
#include "base/fd.h"
#include "main/log.h"

#include <array>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <span>

namespace rvk {
namespace {

constexpr size_t block_bytes = 4096;              // ours
constexpr uint16_t image_checksum_start = 0x5555; // card

bool contains_any(const char* path, std::span<const char* const> markers)
{
    for (const char* marker : markers) {
        if (strstr(path, marker) != nullptr) { return true; }
    }
    return false;
}

bool write_or_log(const unique_fd& file, std::span<const uint8_t> bytes, off_t at)
{
    if (write_full(file, bytes, at)) { return true; }
    log_print(LOG_HERE, "%s cannot be written (%s): nothing is sent\n", update_temp_path, strerror(errno));
    return false;
}

// Appends the source behind the head, block by block, and ends soon after `size` whatever follows: a source that grows,
// or that is a link to the copy, has no end. Result: bytes copied; -1 when they could not be written.
off_t copy_blocks(const unique_fd& source, const unique_fd& temporary, off_t size, uint16_t* checksum)
{
    std::array<uint8_t, block_bytes> block;
    off_t copied = 0;
    while (copied <= size) {
        const size_t n = read_full(source, block);
        if (n == 0) { return copied; }
        for (size_t i = 0; i < n; ++i) { *checksum = static_cast<uint16_t>(*checksum + block[i]); }
        if (!write_or_log(temporary, {block.data(), n}, static_cast<off_t>(image_head_bytes) + copied)) { return -1; }
        copied += static_cast<off_t>(n);
    }
    return copied;
}

// An older copy that could not be removed would keep its tail.
bool has_size(const unique_fd& temporary, off_t wanted)
{
    const off_t made = size_of(temporary);
    if (made == wanted) { return true; }
    log_print(LOG_HERE, "%s has %lld bytes instead of %lld, remove it; nothing is sent\n", update_temp_path,
              static_cast<long long>(made), static_cast<long long>(wanted));
    return false;
}

int32_t copy_image(const unique_fd& source, const unique_fd& temporary, off_t size)
{
    std::array<uint8_t, image_head_bytes> head{};
    if (!write_or_log(temporary, head, 0)) { return -1; }
    uint16_t checksum = image_checksum_start;
    const off_t copied = copy_blocks(source, temporary, size, &checksum);
    if (copied < 0) { return -1; }
    if (copied != size) {
        log_print(LOG_HERE, "image changed while it was copied: %lld bytes measured, %lld copied; nothing is sent\n",
                  static_cast<long long>(size), static_cast<long long>(copied));
        return -1;
    }
    store_le32(head.data() + image_size_at, static_cast<uint32_t>(size));
    store_le16(head.data() + image_checksum_at, checksum);
    if (!write_or_log(temporary, head, 0)) { return -1; }
    return has_size(temporary, static_cast<off_t>(image_head_bytes) + size) ? 0 : -1;
}

} // namespace

void log_open_failure(const char* path)
{
    const char* const why = open_failure();
    log_print(LOG_HERE, " file open fail\n");
    log_print(LOG_HERE, "%s: %s\n", printable(path).text, why);
}

image_kind kind_of(const char* path)
{
    static constexpr const char* binary[] = {".BIN", ".bin", ".Bin"};
    static constexpr const char* encrypted[] = {".dat", ".Dat", ".DAT"};
    if (contains_any(path, binary)) { return image_kind::binary; }
    return contains_any(path, encrypted) ? image_kind::encrypted : image_kind::unknown;
}

int32_t build_image(const char* source_path, off_t size)
{
    log_print(LOG_HERE, "file is *.bin! we will add 256B Head .\n ");
    update_temfile_creat(update_temp_path);
    unique_fd source = open_regular(source_path, O_RDWR);
    unique_fd temporary;
    if (source) { temporary = open_output(update_temp_path, 0); }
    if (!temporary) {
        log_open_failure(source ? update_temp_path : source_path);
        return -1;
    }
    if (copy_image(source, temporary, size) != 0) {
        // What is of no use takes no room.
        if (ftruncate(temporary.get(), 0) != 0) { log_print(LOG_HERE, "%s: %s\n", update_temp_path, strerror(errno)); }
        return -1;
    }
    log_print(LOG_HERE, "temp file is deal over! \n");
    source.reset();
    temporary.reset();
    sync();
    return 0;
}

} // namespace rvk
