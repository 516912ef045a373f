// Any bytes as a message from another process, all the way down to simulated cards and back: whatever the cards and the
// socket do wrong, the message is done with in the end, every frame was a good one, and no block is left.
//
// One thread plays all: replies wait in a queue, and are received when a sender waits for its answer and after the
// message was handled; with none left, time passes. Input: a byte whose bit 0 makes it a data message, a byte that
// picks the cards' fault (0: none), a byte n for a socket that refuses every n-th frame (0: none), then the message.
#include "ap_msg/endpoint.h"
#include "ap_msg/mailbox.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "cardsim/cards.h"
#include "eth_raw/link.h"
#include "mem/mem.h"
#include "platform/platform.h"
#include "queue/queue.h"
#include "raw_msg/link_threads.h"
#include "timer/timer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <deque>
#include <memory>
#include <semaphore.h>
#include <sys/socket.h>

using namespace rvk;

namespace {

constexpr uint64_t pass_us = 10'000;  // of the check thread
constexpr int passes_per_tick = 3;    // 30 ms
constexpr int passes_max = 1'000'000; // of a message that never ends
constexpr size_t input_head = 3;

struct bench {
    card_farm farm;
    std::deque<reply_frame> on_the_wire;
    uint64_t now_us = 0;
    uint64_t frames = 0;
    unsigned refuse_every = 0;
    uint32_t requester = 0;
};
bench* now = nullptr;             // of the input that is being run
uint8_t taken[message_bytes_max]; // an answer is read to its last byte, and AddressSanitizer watches

void collect_due()
{
    std::vector<reply_frame> out;
    now->farm.due(now->now_us, out);
    now->on_the_wire.insert(now->on_the_wire.end(), out.begin(), out.end());
}

void receive_or_let_time_pass()
{
    if (!now->on_the_wire.empty()) { return receive_step(0); }
    now->now_us += pass_us;
    if (now->now_us / pass_us > passes_max) { abort(); }
    if (now->now_us / pass_us % passes_per_tick == 0) { catch_alarm(SIGALRM); }
    check_step(0);
    collect_due();
}

bool blocks_are_out()
{
    for (int type = 0; type < static_cast<int>(mem_classes); ++type) {
        if (mem_in_use(type) != 0) { return true; }
    }
    return false;
}

} // namespace

extern "C" {

int apipc_init(uint32_t, int) { return 0; }
int apipc_loop_wait(int, apipc_callback) { return -1; }
int apcard_bit_self(void) { return 1; }

int apipc_send(uint32_t destination, const void* message, uint32_t bytes)
{
    if (destination != now->requester || bytes < message_head_bytes || bytes > sizeof taken) { abort(); }
    std::copy_n(static_cast<const uint8_t*>(message), bytes, taken);
    return 0;
}

void __wrap_perror(const char*) {}

ssize_t __wrap_sendto(int, const void* frame, size_t count, int, const sockaddr*, socklen_t)
{
    if (now->refuse_every != 0 && ++now->frames % now->refuse_every == 0) {
        errno = ENETDOWN;
        return -1;
    }
    std::vector<reply_frame> out;
    now->farm.request({static_cast<const uint8_t*>(frame), count}, now->now_us, out);
    now->on_the_wire.insert(now->on_the_wire.end(), out.begin(), out.end());
    return static_cast<ssize_t>(count);
}

ssize_t __wrap_recvfrom(int, void* buffer, size_t room, int, sockaddr*, socklen_t*)
{
    const reply_frame frame = now->on_the_wire.front();
    now->on_the_wire.pop_front();
    const size_t count = std::min(room, frame.length);
    std::copy_n(frame.bytes.begin(), count, static_cast<uint8_t*>(buffer));
    return static_cast<ssize_t>(count);
}

int __wrap_sem_wait(sem_t* answer)
{
    while (sem_trywait(answer) != 0) { receive_or_let_time_pass(); }
    return 0;
}

int LLVMFuzzerInitialize(int*, char***)
{
    queue_init();
    mem_init();
    mailbox_close(); // no thread serves file jobs
    g_eth_init[0].active = 1;
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < input_head || size - input_head > message_bytes_max) { return 0; }
    const size_t length = size - input_head;
    const std::unique_ptr<uint8_t[]> message{new uint8_t[length]};
    std::copy(data + input_head, data + size, message.get());
    bench here;
    now = &here;
    card_faults faults{.seed = data[1]};
    if (data[1] != 0) { faults.*fault_table()[data[1] % fault_count].how_often = 0.5; }
    here.farm.set_faults(faults);
    here.refuse_every = data[2];
    if (length >= message_head_bytes) {
        if ((data[0] & 1) != 0) {
            store_le16(message.get() + message::msg_type, 0);
            store_le16(message.get() + message::msg_class, static_cast<uint16_t>(data_class));
        }
        here.requester = load_le32(message.get() + message::aptid);
    }
    ApipcEventDeal(0, 0, message.get(), static_cast<int>(length));
    while (!here.on_the_wire.empty() || blocks_are_out()) { receive_or_let_time_pass(); }
    if (here.farm.counts().refused() != 0) { abort(); }
    return 0;
}
}
