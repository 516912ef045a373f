#include "ap_msg/firmware.h"

#include "ap_msg/firmware_image.h"
#include "base/bytes.h"
#include "base/clock.h"
#include "base/counters.h"
#include "base/fd.h"
#include "eth_raw/frame.h"
#include "main/log.h"
#include "platform/platform.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <limits>
#include <poll.h>
#include <sys/stat.h>

namespace rvk {
namespace {

constexpr int update_link = 0;             // board: every transfer goes out on link 0
constexpr uint16_t update_model = 0;       // card
constexpr uint32_t update_ticks = 100;     // ours
constexpr int update_attempts = 2;         // ours
constexpr uint64_t refusal_pause_ms = 10;  // ours
constexpr uint32_t data_addr = 0x18000000; // card: takes the pieces as a stream
constexpr size_t piece_bytes = 1024;       // card
constexpr size_t command_bytes = 128;      // ours

// One register of the file information.
struct info_field {
    const char* name;
    uint32_t addr;
    size_t bytes;
    int attempts;
    std::array<uint8_t, 4> value;
};

// In the order in which the card wants them.
std::array<info_field, 7> file_info(uint32_t size, uint16_t model, uint8_t slot)
{
    const auto high = static_cast<uint8_t>(model >> 8);
    const auto low = static_cast<uint8_t>(model);
    return {{
        {"total_files_size", 0x11F00000, 4, 1, le32(size)},
        {"files_recv_len", 0x11F00004, 4, update_attempts, le32(0)},
        {"total_files_count", 0x11F00008, 4, update_attempts, le32(1)},
        {"current_file_size", 0x11F0000C, 4, update_attempts, le32(size)},
        {"v", 0x11F00010, 1, update_attempts, {0}},
        {"device_type", 0x18200000, 2, update_attempts, {high, low}},
        {"card_modelid", 0x18200002, 3, update_attempts, {0, 0, slot}},
    }};
}

int32_t send_file_info(uint32_t size, uint16_t model, uint8_t slot)
{
    for (const info_field& field : file_info(size, model, slot)) {
        const std::span<const uint8_t> value{field.value.data(), field.bytes};
        uint8_t ack = no_answer;
        if (field.attempts == 1) {
            static_cast<void>(RawSockSendMsgWithAckWait(update_link, update_model, slot, field.addr, code_write_ack,
                                                        value, &ack, update_ticks));
            count_step(ack != no_answer);
        } else {
            RawSockSendMsgWithAckWait_Try_nTimes(field.attempts, update_link, update_model, slot, field.addr,
                                                 code_write_ack, value, &ack, update_ticks);
        }
        if (ack == ack_good) { continue; }
        log_print(LOG_HERE, "send file_info.%s err!\n", field.name);
        return -1;
    }
    return 0;
}

// The figure is overwritten in place, once one was printed.
void print_progress(bool* printed, uint32_t total, uint32_t remaining)
{
    const auto percent = static_cast<int>(uint64_t{100} * (total - remaining) / total);
    *printed |= console_print(STDOUT_FILENO, *printed ? "\b\b\b%2d%%" : "now sended %2d%%", percent);
}

int32_t send_pieces(const unique_fd& file, uint32_t total, uint8_t slot)
{
    std::array<uint8_t, piece_bytes> piece;
    counted_transfer progress(transfer::firmware, total);
    bool printed = false;
    for (uint32_t remaining = total; remaining != 0;) {
        const auto n = static_cast<uint32_t>(std::min<size_t>(piece_bytes, remaining));
        if (read_full(file, {piece.data(), n}) < n) {
            log_print(LOG_HERE, "file read err！\n");
            return -1;
        }
        uint8_t ack = no_answer;
        RawSockSendMsgWithAckWait_Try_nTimes(update_attempts, update_link, update_model, slot, data_addr,
                                             code_write_ack, {piece.data(), n}, &ack, update_ticks);
        remaining -= n;
        if (ack != ack_good) {
            log_print(LOG_HERE, "err! ack = 0X%02X\r\n ", ack);
            return -1;
        }
        progress.reached(total - remaining);
        print_progress(&printed, total, remaining);
    }
    return 0;
}

int32_t send_image(uint32_t total, uint8_t slot)
{
    log_print(LOG_HERE, "begin open file! \r\n ");
    int32_t result = -1;
    if (const unique_fd file = open_output(update_temp_path, 0)) {
        log_print(LOG_HERE, " file open success！\n");
        result = send_pieces(file, total, slot);
    } else {
        log_open_failure(update_temp_path);
    }
    log_print(LOG_HERE, "\n"); // ends the progress line
    log_print(LOG_HERE, "file is close!\n");
    return result;
}

bool fits_sizes(off_t size)
{
    constexpr off_t most = std::numeric_limits<uint32_t>::max() - off_t{image_head_bytes};
    if (size <= most) { return true; }
    log_print(LOG_HERE, "image refused: %lld bytes, at most %lld\n", static_cast<long long>(size),
              static_cast<long long>(most));
    return false;
}

bool is_binary(const char* path)
{
    switch (kind_of(path)) {
    case image_kind::binary: return true;
    case image_kind::encrypted: log_print(LOG_HERE, "file is *.dat! we cann't decrypt it. stoped!\n "); return false;
    case image_kind::unknown: log_print(LOG_HERE, "stop! file is not *.dat or *.bin !\n "); return false;
    }
    return false;
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

void log_attempt(const char* verdict, int left, int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code,
                 size_t len, uint8_t ack)
{
    log_print(LOG_HERE, "index:%d slot:%x model:%x code:%x addr:0x%x len:%d\n", index, slot, model, code, addr,
              static_cast<int>(len));
    log_print(LOG_HERE, "(%d)%s ack 0x%02x.\n", left, verdict, ack);
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
    if (!is_binary(path) || !fits_sizes(size) || build_image(path, size) != 0) { return -1; }
    const auto total = static_cast<uint32_t>(get_file_size(update_temp_path));
    if (send_file_info(total, model, slot) != 0) { return -1; }
    return send_image(total, slot);
}

int32_t update_firmware(uint8_t slot, uint16_t model, const char* path) { return sys_update(path, model, slot); }

int32_t RawSockSendMsgWithAckWait_Try_nTimes(int attempts, int index, uint16_t model, uint8_t slot, uint32_t addr,
                                             uint8_t code, std::span<const uint8_t> data, uint8_t* ack,
                                             uint32_t timeout_ticks)
{
    int32_t result = 0;
    for (int left = attempts - 1; left >= 0; --left) {
        result = RawSockSendMsgWithAckWait(index, model, slot, addr, code, data, ack, timeout_ticks);
        count_step(*ack != no_answer);
        if (*ack == ack_good) { return result; }
        if (*ack == no_answer) {
            log_attempt("ERROR: no", left, index, model, slot, addr, code, data.size(), *ack);
            return result;
        }
        log_attempt("msg error: try to send again", left, index, model, slot, addr, code, data.size(), *ack);
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

int32_t update_temfile_del(const char* path)
{
    run_on_file("/bin/rm -f ", path);
    return 0;
}

off_t get_file_size(const char* path)
{
    struct stat status = {};
    return stat(path, &status) == 0 ? status.st_size : 0;
}

off_t get_file_size_old(const char* path)
{
    const unique_fd file = open_regular(path, O_RDONLY);
    if (!file) {
        log_print(LOG_HERE, "ERROR: Open file %s failed.\n", path);
        return 0;
    }
    return std::max<off_t>(lseek(file.get(), 0, SEEK_END), 0);
}

} // namespace rvk
