#include "demo/demo.h"

#include "ap_msg/file_service.h"
#include "base/bytes.h"
#include "base/clock.h"
#include "base/fd.h"
#include "eth_raw/frame.h"
#include "eth_raw/registers.h"
#include "main/log.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <fcntl.h>
#include <limits>

namespace rvk {
namespace {

constexpr uint16_t fpga_model = 0;                 // card
constexpr uint32_t demo_ticks = 3;                 // ours
constexpr uint32_t first_buffer = 16;              // card
constexpr int pictures = 9;                        // ours
constexpr int shown_interval = 5;                  // ours
constexpr int shown_pictures = 8;                  // ours
constexpr uint64_t settle_ms = 3000;               // card: from its readiness to the first register
constexpr uint64_t ready_pause_ms = 500;           // ours
constexpr int ready_reads = 20, ready_answers = 5; // ours

constexpr std::array<uint8_t, 4> timing_a_bytes{0x4C, 0x04, 0xD6, 0x0B}; // card
constexpr std::array<uint8_t, 12> timing_b_bytes{0x16, 0x00, 0x0A, 0x00, 0x60, 0x00,
                                                 0x52, 0x00, 0x20, 0x04, 0xC2, 0x08}; // card

void set(int index, uint32_t addr, std::span<const uint8_t> bytes)
{
    // What fails is logged by the transport; the sequence goes on.
    static_cast<void>(DemoRawSockSendMsgWithAckWait(index, fpga_model, playback_slot, addr, bytes));
}

void set(int index, uint32_t addr, uint8_t value) { set(index, addr, std::array{value}); }

uint32_t clamped(float value)
{
    if (!(value > 0.0F)) { return 0; }
    return value >= 4294967296.0F ? std::numeric_limits<uint32_t>::max() : static_cast<uint32_t>(value);
}

void load_picture(int index, uint32_t buffer, int number, std::span<uint8_t> picture)
{
    const uint32_t start_us = monotonic_us();
    char path[256] = "";
    snprintf(path, sizeof path, "/usr/kup/etc/demo/demo_%d", number);
    log_print(LOG_HERE, "write demo pic:%s\n", path);
    std::fill(picture.begin(), picture.end(), uint8_t{0});
    ReadDemoPictureData(path, picture);
    static_cast<void>(write_demo_data(index, fpga_model, playback_slot, buffer, demo_hor, demo_ver, picture));
    log_print(LOG_HERE, "write demo pic total time:%f sec\n", seconds_since(start_us));
}

} // namespace

void WriteDemoPictureData(int index)
{
    const page_buffer picture(demo_picture_bytes);
    if (!picture) { return; }
    CheckFpgaReady();
    pause_ms(settle_ms);
    DemoPlayIntervalSet(index, shown_interval);
    DemoPlayPicNumberSet(index, shown_pictures);
    DemoTimingReset(index);
    for (int n = 1; n <= pictures; ++n) {
        load_picture(index, first_buffer + static_cast<uint32_t>(n - 1), n, picture.bytes());
        if (n > 1) { continue; }
        DemoTimingResetRelease(index); // plays from the first picture on, while the others are still loaded
        DemoOutTimingConfig(index);
        DemoPlayStart(index);
    }
}

void WriteDemoPictureDataTest(int index, uint32_t buffer, int number)
{
    const page_buffer picture(demo_picture_bytes);
    if (picture) { load_picture(index, buffer, number, picture.bytes()); }
}

void CheckFpgaReady()
{
    int good = 0;
    for (int attempts = 0; attempts < ready_reads; ++attempts) {
        uint8_t status = 0;
        const bool answered =
            DemoRawSockSendMsgWithReadWait(0, fpga_model, playback_slot, readiness_register, {&status, 1}) == 0;
        if (answered && status == not_ready) { continue; } // at once: a pause follows what is no such answer
        if (answered) { log_print(LOG_HERE, "@@@@@@@@@@@@@@vpu fpga init status = 0x%x\n", status); }
        pause_ms(ready_pause_ms);
        if (answered && ++good == ready_answers) { return; }
    }
}

int32_t DemoRawSockSendMsgWithReadWait(int index, uint16_t model, uint8_t slot, uint32_t addr, std::span<uint8_t> dest)
{
    const scoped_lock hold(demo_mutex);
    uint32_t received = 0;
    return RawSockSendMsgWithReadWait(index, model, slot, addr, code_read, static_cast<uint32_t>(dest.size()), dest,
                                      &received, demo_ticks);
}

int32_t DemoRawSockSendMsgWithAckWait(int index, uint16_t model, uint8_t slot, uint32_t addr,
                                      std::span<const uint8_t> data)
{
    const scoped_lock hold(demo_mutex);
    uint8_t ack = no_answer;
    return RawSockSendMsgWithAckWait(index, model, slot, addr, code_write_ack, data, &ack, demo_ticks);
}

int32_t write_demo_data(int index, uint16_t model, uint8_t slot, uint32_t buffer, uint16_t hor, uint16_t ver,
                        std::span<const uint8_t> data)
{
    const scoped_lock hold(demo_mutex);
    return DDR2Write(index, model, slot, buffer, hor, ver, data);
}

void ReadDemoPictureData(const char* path, std::span<uint8_t> buffer)
{
    const unique_fd file = open_regular(path, O_RDONLY);
    if (file) { static_cast<void>(read_full(file, buffer)); } // a shorter file leaves the rest as it was
}

void DemoOutTimingConfig(int index)
{
    set(index, playback::timing_a, timing_a_bytes);
    set(index, playback::timing_b, timing_b_bytes);
    set(index, playback::timing_load, 1);
    set(index, playback::play, 1);
}

void DemoPlayStart(int index) { set(index, playback::play, 0); }
void DemoTimingReset(int index) { set(index, playback::reset, 0); }
void DemoTimingResetRelease(int index) { set(index, playback::reset, 1); }

void DemoPlayIntervalSet(int index, int interval)
{
    const float value = static_cast<float>(interval) / 5.0F * 1'000'000'000.0F;
    std::array<uint8_t, 4> bytes;
    store_le32(bytes.data(), clamped(value));
    set(index, playback::interval, bytes);
}

void DemoPlayPicNumberSet(int index, int number) { set(index, playback::number, static_cast<uint8_t>(number)); }

} // namespace rvk
