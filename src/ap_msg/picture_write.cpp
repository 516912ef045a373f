#include "ap_msg/picture_write.h"

#include "ap_msg/file_request.h"
#include "ap_msg/message.h"
#include "ap_msg/picture_file.h"
#include "base/clock.h"
#include "base/counters.h"
#include "eth_raw/frame.h"
#include "main/log.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <array>
#include <chrono>

namespace rvk {

fair_mutex pic_mutex;

namespace {

constexpr uint32_t control_ticks = 3; // ours
constexpr size_t frames_at_once = 64; // ours: some 200 µs, after which the clock is looked at

// A card's two picture memories, by the number of the buffer.
struct picture_port {
    uint32_t control, data;
};
constexpr picture_port demo_port{0x7080, 0x60000};  // card: buffers 16 to 25
constexpr picture_port other_port{0x7040, 0x40000}; // card

constexpr picture_port port_of(uint32_t buffer) { return buffer >= 16 && buffer <= 25 ? demo_port : other_port; }

// The control block: command, hor, ver, buffer number's low byte.
using control_block = std::array<uint8_t, 6>;
constexpr uint8_t command_end = 0, command_start = 1; // card; the set-up write carries the first of them

control_block control_of(uint32_t buffer, uint16_t hor, uint16_t ver)
{
    return {command_end,
            static_cast<uint8_t>(hor),
            static_cast<uint8_t>(hor >> 8),
            static_cast<uint8_t>(ver),
            static_cast<uint8_t>(ver >> 8),
            static_cast<uint8_t>(buffer)};
}

struct card {
    int index;
    uint16_t model;
    uint8_t slot;
};

// Its outcome is logged by the transport and not examined: the picture goes on.
void write_control(const card& to, uint32_t control, std::span<const uint8_t> bytes)
{
    uint8_t ack = no_answer;
    static_cast<void>(
        RawSockSendMsgWithAckWait(to.index, to.model, to.slot, control, code_write_ack, bytes, &ack, control_ticks));
    count_step(ack != no_answer);
}

// Every frame goes to the same address: the card takes them as a stream.
void stream(const card& to, uint32_t data_port, std::span<const uint8_t> bytes) RVK_REQUIRES(pic_mutex)
{
    counted_transfer progress(transfer::picture, bytes.size());
    for (size_t at = 0; at < bytes.size(); at += frame_data_max) {
        const auto piece = bytes.subspan(at, std::min(frame_data_max, bytes.size() - at));
        static_cast<void>(RawSockSendMsg(to.index, to.model, to.slot, data_port, code_write, piece));
        progress.reached(at + piece.size());
        if (at / frame_data_max % frames_at_once == 0) { let_others_run(picture_turn_us); }
    }
}

// Result: false when the picture cannot be had from the file; nothing was sent then.
bool write_from_file(const card& to, uint32_t buffer, picture_size size, const char* path, int32_t* result)
{
    const std::unique_ptr<page_buffer> file = read_picture_file(path, size);
    if (!file) { return false; }
    const auto start = std::chrono::steady_clock::now();
    const auto pixels = pixels_of(file->bytes(), path, size);
    if (pixels.data() == nullptr) { return false; }
    *result = DDR2Write(to.index, to.model, to.slot, buffer, static_cast<uint16_t>(size.hor),
                        static_cast<uint16_t>(size.ver), pixels);
    if (!has_known_format(path)) { log_print(LOG_HERE, "file no format\n"); }
    log_print(LOG_HERE, "total time:%f sec\n", seconds_since(start));
    return true;
}

} // namespace

int32_t write_file_handle(const mailbox_area& message_head, const mailbox_area& data_head)
{
    const file_request r = file_request_of(data_head);
    picture_size size{};
    job_path path;
    int32_t result = read_picture_job(r, path.size() - 1, &size, &path);
    if (result == 0) { result = write_file_handler(r.index, r.slot, r.model, r.addr, size.hor, size.ver, path.data()); }
    write_file_resp(message_head, result);
    return result;
}

int32_t write_file_handler(int index, uint8_t slot, uint16_t model, uint32_t buffer, uint32_t hor, uint32_t ver,
                           const char* path)
{
    int32_t result = -1;
    if (write_from_file({index, model, slot}, buffer, {hor, ver}, path, &result)) { return result; }
    return write_file_handler_excp(index, model, slot, buffer, hor, ver); // the file's bytes are given back by now
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

void write_file_resp(const mailbox_area& message_head, int32_t result)
{
    send_reply(message_head.data(), result);
    log_print(LOG_HERE, "write file response %s\n", result == 0 ? "ok" : "not ok");
}

int32_t DDR2Write(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint16_t hor, uint16_t ver,
                  std::span<const uint8_t> data)
{
    const picture_port port = port_of(buffer);
    const card to{index, model, slot};
    log_print(LOG_HERE, "DDR2Write begin: ver=%d hor=%d addr=0x%x\n", ver, hor, buffer);
    if (data.data() == nullptr) { return -1; }
    const scoped_lock hold(pic_mutex);
    const control_block set_up = control_of(buffer, hor, ver);
    write_control(to, port.control, set_up);
    write_control(to, port.control, std::array{command_start});
    stream(to, port.data, data.first(std::min(data.size(), picture_bytes({hor, ver}))));
    write_control(to, port.control, std::array{command_end});
    return 0;
}

} // namespace rvk
