// Pictures into card memory. A file is read whole before anything is sent: a change of it cuts no picture short.
#include "ap_msg/file_service.h"

#include "base/bytes.h"
#include "base/clock.h"
#include "base/counters.h"
#include "base/fd.h"
#include "eth_raw/frame.h"
#include "eth_raw/registers.h"
#include "main/log.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <climits>
#include <fcntl.h>
#include <memory>
#include <new>
#include <string_view>

namespace rvk {

fair_mutex pic_mutex;

namespace {

constexpr uint32_t control_ticks = 3;             // ours
constexpr size_t run_bytes = 64 * frame_data_max; // ours: some 200 µs, after which the clock is looked at

constexpr uint8_t command_end = 0, command_start = 1; // card; the set-up write begins with command_end

constexpr bool is_demo_buffer(uint32_t buffer) { return buffer >= 16 && buffer <= 25; }

// Its outcome is logged by the transport and not examined: the picture goes on.
void write_control(const card_address& to, std::span<const uint8_t> bytes)
{
    uint8_t ack = no_answer;
    static_cast<void>(
        RawSockSendMsgWithAckWait(to.link, to.model, to.slot, to.addr, code_write_ack, bytes, &ack, control_ticks));
    count_step(ack != no_answer);
}

// Every frame goes to the same address: the card takes them as a stream.
void stream(const card_address& to, std::span<const uint8_t> bytes) RVK_REQUIRES(pic_mutex)
{
    counted_transfer progress(transfer::picture, bytes.size());
    for (size_t at = 0; at < bytes.size(); at += run_bytes) {
        const auto run = bytes.subspan(at, std::min(run_bytes, bytes.size() - at));
        static_cast<void>(send_plain(to, code_write, run, 0));
        progress.reached(at + run.size());
        let_others_run(long_turn_us);
    }
}

std::span<const uint8_t> log_too_small(size_t file_bytes, picture_size size)
{
    log_print(LOG_HERE, "\nfile size error, hor=%d, ver=%d, filesize=%zu\n", static_cast<int>(size.hor),
              static_cast<int>(size.ver), file_bytes);
    return {};
}

// Result: the file's bytes; null, and logged, when they cannot be had.
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
    std::unique_ptr<page_buffer> buffer;
    // A file that does not fit the 32-bit sizes that pictures have is one for which there is no memory.
    if (bytes <= INT_MAX) { buffer.reset(new (std::nothrow) page_buffer(static_cast<size_t>(bytes))); }
    if (!buffer || !*buffer) {
        log_print(LOG_HERE, "\nmalloc p failed\n");
        return nullptr;
    }
    if (read_full(file, buffer->bytes()) == buffer->bytes().size()) { return buffer; }
    log_print(LOG_HERE, "\nfread failed\n");
    return nullptr;
}

} // namespace

int32_t write_file_handle(const received_command& c)
{
    picture_size size{};
    job_path path;
    int32_t result = read_picture_job(c.payload, picture_path_max, &size, &path);
    if (result == 0) { result = write_file_handler(c.index, c.slot, c.model, c.addr, size.hor, size.ver, path.data()); }
    write_file_resp(c, result);
    return result;
}

void write_file_resp(const received_command& c, int32_t result)
{
    send_reply(c, result);
    log_print(LOG_HERE, "write file response %s\n", result == 0 ? "ok" : "not ok");
}

std::span<const uint8_t> pixels_of(std::span<const uint8_t> file, const char* path, picture_size size)
{
    const size_t wanted = picture_bytes(size);
    size_t offset = 0;
    if (std::string_view{path}.ends_with(".bmp")) {
        if (file.size() < bmp::pixels_at_end) { return log_too_small(file.size(), size); }
        const auto carried = static_cast<int32_t>(load_le32(&file[bmp::pixels_at]));
        log_print(LOG_HERE, "offset = %d\n", carried);
        if (carried <= 0) { return log_too_small(file.size(), size); }
        offset = static_cast<size_t>(carried);
    }
    if (offset > file.size() || file.size() - offset < wanted) { return log_too_small(file.size(), size); }
    return file.subspan(offset, wanted);
}

int32_t write_file_handler(int index, uint8_t slot, uint16_t model, uint32_t buffer, uint32_t hor, uint32_t ver,
                           const char* path)
{
    std::unique_ptr<page_buffer> file = read_picture_file(path, {hor, ver});
    const uint32_t start_us = monotonic_us();
    const auto pixels = file ? pixels_of(file->bytes(), path, {hor, ver}) : std::span<const uint8_t>{};
    if (pixels.data() == nullptr) { // the file's bytes make way for a black picture's
        file.reset();
        return write_file_handler_excp(index, model, slot, buffer, hor, ver);
    }
    const int32_t result =
        DDR2Write(index, model, slot, buffer, static_cast<uint16_t>(hor), static_cast<uint16_t>(ver), pixels);
    const std::string_view name{path};
    if (!name.ends_with(".bmp") && !name.ends_with(".txt")) { log_print(LOG_HERE, "file no format\n"); }
    log_print(LOG_HERE, "total time:%f sec\n", seconds_since(start_us));
    return result;
}

int32_t write_file_handle_test(int index, uint8_t slot, uint16_t model, uint32_t buffer, uint32_t hor, uint32_t ver,
                               const char* path)
{
    return write_file_handler(index, slot, model, buffer, hor, ver, path);
}

int32_t write_file_handler_excp(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint32_t hor, uint32_t ver)
{
    const page_buffer black(picture_bytes({hor, ver}));
    if (!black) {
        log_print(LOG_HERE, "\nmalloc p failed\n");
        return -1;
    }
    return DDR2Write(index, model, slot, buffer, static_cast<uint16_t>(hor), static_cast<uint16_t>(ver), black.bytes());
}

int32_t DDR2Write(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint16_t hor, uint16_t ver,
                  std::span<const uint8_t> data)
{
    const card_address control{index, model, slot, is_demo_buffer(buffer) ? demo_control : other_control};
    const card_address data_port{index, model, slot, is_demo_buffer(buffer) ? demo_data : other_data};
    log_print(LOG_HERE, "DDR2Write begin: ver=%d hor=%d addr=0x%x\n", ver, hor, buffer);
    if (data.data() == nullptr) { return -1; }
    std::array<uint8_t, 6> set_up{command_end}; // then hor, ver, and the buffer number's low byte
    store_le16(&set_up[1], hor);
    store_le16(&set_up[3], ver);
    set_up[5] = static_cast<uint8_t>(buffer);
    const scoped_lock hold(pic_mutex);
    write_control(control, set_up);
    write_control(control, std::array{command_start});
    stream(data_port, data.first(std::min(data.size(), picture_bytes({hor, ver}))));
    write_control(control, std::array{command_end});
    return 0;
}

} // namespace rvk
