#include "ap_msg/firmware.h"

#include "base/bytes.h"
#include "base/clock.h"
#include "base/counters.h"
#include "base/fd.h"
#include "eth_raw/frame.h"
#include "eth_raw/registers.h"
#include "main/log.h"
#include "platform/platform.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <sys/stat.h>
#include <utility>

namespace rvk {
namespace {

constexpr char update_temp_path[] = "/home/updatebin.tmp"; // ours
constexpr size_t block_bytes = 4096;                       // ours
constexpr int update_link = 0;                             // board: every transfer goes out on link 0
constexpr uint16_t update_model = 0;                       // card
constexpr uint32_t update_ticks = 100;                     // ours
constexpr int update_attempts = 2;                         // ours
constexpr uint64_t refusal_pause_ms = 10;                  // ours
constexpr size_t piece_bytes = 1024;                       // card
constexpr size_t pieces_at_once = 16;                      // ours: read from the file in one call
constexpr size_t command_bytes = 128;                      // ours

// By the first marker found anywhere in the name, binary ones first; upper and lower case as listed.
bool is_binary_or_logged(const char* path)
{
    const auto has = [path](const char* marker) { return strstr(path, marker) != nullptr; };
    if (has(".BIN") || has(".bin") || has(".Bin")) { return true; }
    const bool encrypted = has(".dat") || has(".Dat") || has(".DAT");
    log_print(LOG_HERE,
              encrypted ? "file is *.dat! we cann't decrypt it. stoped!\n " : "stop! file is not *.dat or *.bin !\n ");
    return false;
}

bool fits_sizes_or_logged(off_t size)
{
    constexpr off_t most = std::numeric_limits<uint32_t>::max() - off_t{image_head_bytes};
    if (size <= most) { return true; }
    log_print(LOG_HERE, "image refused: %lld bytes, at most %lld\n", static_cast<long long>(size),
              static_cast<long long>(most));
    return false;
}

void log_open_failure(const char* path)
{
    const char* const why = open_failure();
    log_print(LOG_HERE, " file open fail\n");
    log_print(LOG_HERE, "%s: %s\n", printable(path).text, why);
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
        *checksum = static_cast<uint16_t>(*checksum + frame_checksum(block.data(), n) - checksum_start);
        if (!write_or_log(temporary, {block.data(), n}, static_cast<off_t>(image_head_bytes) + copied)) { return -1; }
        copied += static_cast<off_t>(n);
    }
    return copied;
}

// An older copy that could not be removed would keep its tail.
bool has_size_or_logged(const unique_fd& temporary, off_t wanted)
{
    const off_t made = size_of(temporary);
    if (made == wanted) { return true; }
    log_print(LOG_HERE, "%s has %lld bytes instead of %lld, remove it; nothing is sent\n", update_temp_path,
              static_cast<long long>(made), static_cast<long long>(wanted));
    return false;
}

bool copy_image(const unique_fd& source, const unique_fd& temporary, off_t size)
{
    std::array<uint8_t, image_head_bytes> head{};
    if (!write_or_log(temporary, head, 0)) { return false; }
    uint16_t checksum = checksum_start; // card: of an image as of a frame
    const off_t copied = copy_blocks(source, temporary, size, &checksum);
    if (copied < 0) { return false; }
    if (copied != size) {
        log_print(LOG_HERE, "image changed while it was copied: %lld bytes measured, %lld copied; nothing is sent\n",
                  static_cast<long long>(size), static_cast<long long>(copied));
        return false;
    }
    store_le32(&head[image_size_at], static_cast<uint32_t>(size));
    store_le16(&head[image_checksum_at], checksum);
    return write_or_log(temporary, head, 0) &&
           has_size_or_logged(temporary, static_cast<off_t>(image_head_bytes) + size);
}

// Makes the temporary file afresh from an image whose size was measured before. Result: false, and logged, when a file
// cannot be opened or written whole, or the image is no longer of that size.
bool build_image(const char* source_path, off_t size)
{
    log_print(LOG_HERE, "file is *.bin! we will add 256B Head .\n ");
    update_temfile_creat(update_temp_path);
    unique_fd source = open_regular(source_path, O_RDWR); // one that may only be read is refused
    unique_fd temporary;
    if (source) { temporary = open_output(update_temp_path, 0); }
    if (!temporary) {
        log_open_failure(source ? update_temp_path : source_path);
        return false;
    }
    if (!copy_image(source, temporary, size)) {
        // A copy that is not sent takes no space.
        if (ftruncate(temporary.get(), 0) != 0) { log_print(LOG_HERE, "%s: %s\n", update_temp_path, strerror(errno)); }
        return false;
    }
    log_print(LOG_HERE, "temp file is deal over! \n");
    source.reset();
    temporary.reset();
    sync();
    return true;
}

int32_t send_file_info(uint32_t size, uint16_t model, uint8_t slot)
{
    std::array<std::array<uint8_t, 4>, firmware_registers.size()> values{}; // in the registers' order
    store_le32(values[0].data(), size);
    store_le32(values[2].data(), 1);
    store_le32(values[3].data(), size);
    values[5] = {static_cast<uint8_t>(model >> 8), static_cast<uint8_t>(model)};
    values[6] = {0, 0, slot};
    for (size_t i = 0; i < values.size(); ++i) {
        const firmware_register& to = firmware_registers[i];
        const std::span<const uint8_t> value{values[i].data(), to.bytes};
        uint8_t ack = no_answer;
        if (i == 0) { // once: a refusal is not tried again
            static_cast<void>(RawSockSendMsgWithAckWait(update_link, update_model, slot, to.addr, code_write_ack, value,
                                                        &ack, update_ticks));
            count_step(ack != no_answer);
        } else {
            RawSockSendMsgWithAckWait_Try_nTimes(update_attempts, update_link, update_model, slot, to.addr,
                                                 code_write_ack, value, &ack, update_ticks);
        }
        if (ack == ack_good) { continue; }
        log_print(LOG_HERE, "send file_info.%s err!\n", to.name);
        return -1;
    }
    return 0;
}

// Prints the percentage after each piece, over the one before it (three backspaces). Equal ones are gathered and
// written with the next that differs.
struct progress_line {
    std::array<char, 512> unwritten{};
    size_t used = 0;
    int last = -1;
    bool printed = false;

    void show(uint64_t sent, uint64_t total)
    {
        const auto percent = static_cast<int>(100 * sent / total);
        const char* const before = printed || used != 0 ? "\b\b\b" : "now sended ";
        const size_t space = unwritten.size() - used;
        used += static_cast<size_t>(snprintf(&unwritten[used], space, "%s%2d%%", before, percent));
        if (std::exchange(last, percent) != percent || used > unwritten.size() - sizeof "\b\b\b100%") { write(); }
    }
    void write() { printed |= used != 0 && console_write(STDOUT_FILENO, unwritten.data(), std::exchange(used, 0)); }
};

int32_t send_pieces(const unique_fd& file, uint32_t total, uint8_t slot)
{
    std::array<uint8_t, pieces_at_once * piece_bytes> block;
    size_t held = 0;
    counted_transfer progress(transfer::firmware, total);
    progress_line line;
    uint8_t ack = ack_good;
    for (uint32_t sent = 0; sent != total;) {
        const size_t at = sent % block.size(), n = std::min<size_t>(piece_bytes, total - sent);
        if (at == 0) { held = read_full(file, block); }
        const bool is_there = at + n <= held;
        if (is_there) {
            RawSockSendMsgWithAckWait_Try_nTimes(update_attempts, update_link, update_model, slot, firmware_data,
                                                 code_write_ack, {&block[at], n}, &ack, update_ticks);
        }
        if (!is_there || ack != ack_good) {
            line.write();
            log_print(LOG_HERE, is_there ? "err! ack = 0X%02X\r\n " : "file read err！\n", ack);
            return -1;
        }
        sent += static_cast<uint32_t>(n);
        progress.reached(sent);
        line.show(sent, total);
    }
    return 0;
}

int32_t send_image(uint32_t total, uint8_t slot)
{
    log_print(LOG_HERE, "begin open file! \r\n ");
    int32_t result = -1;
    if (const unique_fd file = open_output(update_temp_path, 0)) { // follows no link that others made
        log_print(LOG_HERE, " file open success！\n");
        result = send_pieces(file, total, slot);
    } else {
        log_open_failure(update_temp_path);
    }
    log_print(LOG_HERE, "\n"); // -d: ends the progress
    log_print(LOG_HERE, "file is close!\n");
    return result;
}

void run_on_file(const char* command, const char* path)
{
    char line[command_bytes] = "";
    if (snprintf(line, sizeof line, "%s%s", command, path) >= static_cast<int>(sizeof line)) {
        log_print(LOG_HERE, "%s%s refused: more than %zu characters\n", command, path, sizeof line - 1);
        return; // cut short it would name another file
    }
    static_cast<void>(my_system(line));
}

} // namespace

int32_t sys_update(const char* path, uint16_t model, uint8_t slot)
{
    if (access(path, F_OK) != 0) {
        log_print(LOG_HERE, "firmware date in \"path_firm\" is not exist! \r\n ");
        return -1;
    }
    const off_t size = get_file_size(path);
    log_print(LOG_HERE, "srcfile size is %lld Bytes! \r\n ", static_cast<long long>(size));
    if (!is_binary_or_logged(path) || !fits_sizes_or_logged(size) || !build_image(path, size)) { return -1; }
    const auto total = static_cast<uint32_t>(get_file_size(update_temp_path));
    if (send_file_info(total, model, slot) != 0) { return -1; }
    return send_image(total, slot);
}

int32_t RawSockSendMsgWithAckWait_Try_nTimes(int attempts, int index, uint16_t model, uint8_t slot, uint32_t addr,
                                             uint8_t code, std::span<const uint8_t> data, uint8_t* ack,
                                             uint32_t timeout_ticks)
{
    int32_t result = 0;
    for (int left = attempts - 1; left >= 0; --left) {
        result = RawSockSendMsgWithAckWait(index, model, slot, addr, code, data, ack, timeout_ticks);
        count_step(*ack != no_answer);
        if (*ack == ack_good) { return result; }
        log_print(LOG_HERE, "index:%d slot:%x model:%x code:%x addr:0x%x len:%d\n", index, slot, model, code, addr,
                  static_cast<int>(data.size()));
        if (*ack == no_answer) {
            log_print(LOG_HERE, "(%d)ERROR: no ack 0x%02x.\n", left, *ack);
            return result;
        }
        log_print(LOG_HERE, "(%d)msg error: try to send again ack 0x%02x.\n", left, *ack);
        pause_ms(refusal_pause_ms);
    }
    return result;
}

int32_t update_temfile_creat(const char* path)
{
    if (access(path, F_OK) == 0) { run_on_file("/bin/rm -f  ", path); }
    run_on_file("/bin/touch ", path);
    return 0;
}

off_t get_file_size(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0 ? status.st_size : 0;
}

int32_t update_firmware(uint8_t slot, uint16_t model, const char* path) { return sys_update(path, model, slot); }

int32_t update_temfile_del(const char* path)
{
    run_on_file("/bin/rm -f ", path);
    return 0;
}

off_t get_file_size_old(const char* path)
{
    const unique_fd file = open_regular(path, O_RDONLY);
    if (file) { return std::max<off_t>(lseek(file.get(), 0, SEEK_END), 0); }
    log_print(LOG_HERE, "ERROR: Open file %s failed.\n", path);
    return 0;
}

} // namespace rvk
