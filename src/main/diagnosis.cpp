#include "main/diagnosis.h"

#include "base/clock.h"
#include "base/fd.h"
#include "base/rt_thread.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "eth_raw/registers.h"
#include "main/log.h"
#include "platform/platform.h"
#include "raw_msg/send.h"

#include <array>
#include <cstdio>
#include <cstring>
#include <fcntl.h>

namespace rvk {

void (*read_buffer)(const uint8_t* payload, uint32_t addr, uint16_t len) = nullptr;

namespace {

constexpr int lvds_priority = 88;                             // ours, SCHED_FIFO
constexpr uint64_t poll_ms = 2000, before_reboot_ms = 30'000; // ours
constexpr uint32_t lvds_ticks = 3, reg_ticks = 6;             // ours

void record_and_reboot(int failures)
{
    log_print(LOG_HERE, "LVDS OK\n");
    char line[256];
    snprintf(line, sizeof line, "echo cost %d times >> /root/lvds_check.txt", failures);
    static_cast<void>(my_system(line));
    pause_ms(before_reboot_ms);
    static_cast<void>(my_system("reboot -f"));
}

// Reads the status once, and counts an answer that is not the expected one. At a boot the card may not be there yet.
void lvds_step(int* failures)
{
    pause_ms(poll_ms);
    std::array<uint8_t, 5> status{};
    uint32_t received = 0;
    if (RawSockSendMsgWithReadWait(0, 0, lvds_slot, lvds_register, code_read, status.size(), status, &received,
                                   lvds_ticks) != 0) {
        return; // neither counted nor logged
    }
    if (status == lvds_good) { return record_and_reboot(*failures); }
    ++*failures;
    log_print(LOG_HERE, "LVDS NOT OK %02x %02x %02x %02x %02x \n", status[0], status[1], status[2], status[3],
              status[4]);
}

} // namespace

int32_t read_reg(int index, uint16_t model, uint8_t slot, uint32_t addr, int length, reg_answer* answer)
{
    reg_answer unused{};
    reg_answer& got = answer != nullptr ? *answer : unused;
    got = {no_answer, 0};
    log_print(LOG_HERE, "read reg 0x%x\n", addr);
    uint8_t* buffer = RawMsgBuffGet(frame_data_max);
    if (buffer == nullptr) { return -1; }
    const int32_t result =
        RawSockSendMsgWithReadWait(index, model, slot, addr, code_read, static_cast<uint32_t>(length),
                                   {buffer, frame_data_max}, &got.received, reg_ticks, &got.ack);
    if (result != 0) { got.received = 0; } // an answer that is too long says so there, and nothing of it is copied
    process_recvbuf(buffer, addr, static_cast<int>(got.received));
    RawMsgBuffFree(buffer);
    return result;
}

int32_t write_reg(int index, uint16_t model, uint8_t slot, uint32_t addr)
{
    uint8_t* buffer = RawMsgBuffGet(frame_data_max);
    if (buffer == nullptr) { return -1; }
    uint8_t ack = no_answer;
    const int32_t result =
        RawSockSendMsgWithAckWait(index, model, slot, addr, code_write_ack, {buffer, 1}, &ack, reg_ticks);
    RawMsgBuffFree(buffer);
    return result;
}

void process_recvbuf(const uint8_t* data, uint32_t addr, int length)
{
    if (data == nullptr) { return; }
    const int whole = length / 4 * 4; // bytes of whole words
    if (whole == 0) { printf("\n%08x: ", addr); }
    for (int i = 0; i < length; ++i) {
        if (i < whole && i % 16 == 0) { printf("\n%08x: ", addr + static_cast<uint32_t>(i)); }
        printf(i < whole && i % 4 == 3 ? "%02x " : "%02x", data[i]);
    }
    printf("\n");
    fflush(stdout);
}

void usage()
{
    puts("usage: \n"
         "    [ Hex ]\n"
         "    [ fpga id read model slot addr len ]\n"
         "    [ fpga id readw model slot addr len ]\n"
         "    [ fpga id write model slot addr value ]\n"
         "    [ fpga id writea model slot addr value ]\n"
         "    [ fpga id writeaw model slot addr value ]\n"
         "    [ fpga id write model slot addr filename ]\n"
         "    [ fpga id writea model slot addr filename ]");
}

int32_t msg_recv()
{
    for (;;) {
        uint8_t ack = 0, slot = 0, code = 0;
        uint16_t model = 0, seq = 0, len = 0;
        uint32_t addr = 0;
        const uint8_t* payload = RawSockMsgRecv(0, &ack, &model, &slot, &addr, &code, &seq, &len);
        if (payload != nullptr && read_buffer != nullptr) { return read_buffer(payload, addr, len), 0; }
    }
}

void ptoc()
{
    char path[32] = "";
    FILE* output = my_popen("tty", "r");
    if (output == nullptr) { return; }
    const bool read = fgets(path, sizeof path, output) != nullptr;
    fclose(output);
    if (!read || path[0] == '\0') { return; }
    path[strlen(path) - 1] = '\0'; // the line end
    if (access(path, F_OK) != 0) { return; }
    const unique_fd terminal{open(path, O_RDWR | O_NOCTTY | O_CLOEXEC)};
    if (dup2(terminal.get(), STDOUT_FILENO) < 0) { log_print(LOG_HERE, "err in dup2\n"); }
}

int32_t LvdsTestTaskCreate(int argument)
{
    if (start_thread("rvk-lvds", lvds_priority, LvdsTest, argument, nullptr) == 0) { return 0; }
    log_print(LOG_HERE, "failed to create thread \n");
    return -1;
}

void LvdsTest(int)
{
    int failures = 0;
    for (;;) { lvds_step(&failures); }
}

} // namespace rvk
