// See the header. Exchanges run through a message buffer of the pool, which every path gives back; the receive buffer
// of msg_recv is the process's one. What is printed is flushed at the end of each dump, so that a pipe's reader sees it
// while the program waits for the next answer.
#include "main/reg.h"

#include "base/fd.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "main/log.h"
#include "platform/platform.h"
#include "raw_msg/exchange.h"

#include <cstring>
#include <fcntl.h>

namespace rvk {

void (*read_buffer)(const uint8_t* payload, uint32_t addr, uint16_t len) = nullptr;

namespace {

constexpr uint32_t reg_ticks = 6; // ours

uint8_t* whole_buffer()
{
    uint8_t* buffer = RawMsgBuffGet(frame_data_max);
    if (buffer == nullptr) { log_print(LOG_HERE, "RawMsgBuffGet fail\n"); }
    return buffer;
}

void print_bytes(const uint8_t* data, int count)
{
    for (int i = 0; i < count; ++i) { printf("%02x", data[i]); }
}

} // namespace

int32_t read_reg(int index, uint16_t model, uint8_t slot, uint32_t addr, int length, reg_answer* answer)
{
    reg_answer got{no_answer, 0};
    if (answer != nullptr) { *answer = got; }
    log_print(LOG_HERE, "read reg 0x%x\n", addr);
    uint8_t* buffer = whole_buffer();
    if (buffer == nullptr) { return -1; }
    const int32_t result = read_and_wait(index, model, slot, addr, code_read, static_cast<uint32_t>(length),
                                         {buffer, frame_data_max}, &got.received, &got.ack, reg_ticks);
    if (result != 0) { got.received = 0; } // an answer that is too long says so there, and nothing of it is copied
    process_recvbuf(buffer, addr, static_cast<int>(got.received));
    RawMsgBuffFree(buffer);
    if (answer != nullptr) { *answer = got; }
    return result;
}

int32_t write_reg(int index, uint16_t model, uint8_t slot, uint32_t addr)
{
    uint8_t* buffer = whole_buffer();
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
    const int words = length / 4;
    if (words == 0) { printf("\n%08x: ", addr); }
    for (int i = 0; i < words; ++i) {
        if (i % 4 == 0) { printf("\n%08x: ", addr + 4 * static_cast<uint32_t>(i)); }
        print_bytes(data + 4 * i, 4);
        printf(" ");
    }
    print_bytes(data + 4 * words, length - 4 * words);
    printf("\n");
    fflush(stdout);
}

void usage()
{
    static constexpr const char* lines[] = {
        "usage: ",
        "    [ Hex ]",
        "    [ fpga id read model slot addr len ]",
        "    [ fpga id readw model slot addr len ]",
        "    [ fpga id write model slot addr value ]",
        "    [ fpga id writea model slot addr value ]",
        "    [ fpga id writeaw model slot addr value ]",
        "    [ fpga id write model slot addr filename ]",
        "    [ fpga id writea model slot addr filename ]",
    };
    for (const char* line : lines) { puts(line); }
}

int32_t msg_recv()
{
    for (;;) {
        uint8_t ack = 0;
        uint8_t slot = 0;
        uint8_t code = 0;
        uint16_t model = 0;
        uint16_t seq = 0;
        uint16_t len = 0;
        uint32_t addr = 0;
        const uint8_t* payload = RawSockMsgRecv(0, &ack, &model, &slot, &addr, &code, &seq, &len);
        if (payload == nullptr || read_buffer == nullptr) { continue; }
        read_buffer(payload, addr, len);
        return 0;
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

} // namespace rvk
