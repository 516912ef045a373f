// The replaced calls; see outside.h. The names with `wrap` in them are what the linker puts in the real ones' place.
#include "sim/outside.h"

#include "base/pause.h"
#include "cardsim/replies.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "mem/mem.h"
#include "platform/platform.h"
#include "queue/queue.h"
#include "raw_msg/filing.h"
#include "raw_msg/link_threads.h"
#include "timer/timer.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <semaphore.h>
#include <sys/socket.h>

namespace rvk {

outside world;

int32_t real_send(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code, uint16_t seq, uint8_t* payload,
                  unsigned len) asm("__real__ZN3rvk14RawSockMsgSendEithjhtPhj");
int32_t wrapped_send(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code, uint16_t seq,
                     uint8_t* payload, unsigned len) asm("__wrap__ZN3rvk14RawSockMsgSendEithjhtPhj");
void* real_alloc(unsigned size) asm("__real__ZN3rvk9mem_allocEj");
void* wrapped_alloc(unsigned size) asm("__wrap__ZN3rvk9mem_allocEj");

int32_t wrapped_send(int index, uint16_t model, uint8_t slot, uint32_t addr, uint8_t code, uint16_t seq,
                     uint8_t* payload, unsigned len)
{
    if (world.before_send) { world.before_send(); }
    const int32_t result = real_send(index, model, slot, addr, code, seq, payload, len);
    if (world.after_send) { world.after_send(); }
    return result;
}

void* wrapped_alloc(unsigned size)
{
    if (world.allocations_left == 0) { return nullptr; }
    if (world.allocations_left > 0) { --world.allocations_left; }
    return real_alloc(size);
}

void pause_us(uint64_t us)
{
    world.paused_us += us;
    if (world.on_pause) { world.on_pause(us); }
}

namespace {

void set(sequence* numbers, uint16_t seq)
{
    const scoped_lock hold(numbers->mtx);
    numbers->seq = seq;
}

} // namespace

void reset_outside(uint16_t first_seq)
{
    world = {};
    queue_init();
    for (sequence* numbers : {&write_ack, &write_ack_wait, &read_ack, &read_wait}) { set(numbers, first_seq); }
    elapsed = 0;
    g_eth_init[0].active = 1;
    g_eth_init[0].sock_fd = 0; // never used: both calls that would are replaced
}

frame_bytes_t pack(const test_answer& answer)
{
    reply_frame reply;
    request_fields request;
    request.model = answer.model;
    request.addr = answer.addr;
    request.seq = answer.seq;
    pack_reply(reply, request, answer.status, answer.code, answer.data);
    return {reply.view().begin(), reply.view().end()};
}

void receive(const frame_bytes_t& frame)
{
    world.answers.push_back(frame);
    receive_step(0);
}

void ticks(int n)
{
    while (n-- > 0) {
        catch_alarm(SIGALRM);
        check_step(0);
    }
}

std::string pool_in_use()
{
    std::string text;
    for (int type = 0; type < static_cast<int>(mem_classes); ++type) { text += std::to_string(mem_in_use(type)) + ' '; }
    return text;
}

int32_t filed()
{
    int32_t sum = 0;
    for (int queue = 0; queue < queue_numbers; ++queue) {
        const scoped_lock hold(mtx[0][queue]);
        int32_t nodes = 0;
        for (const QNode* node = queue_get(0, queue); node != nullptr; node = node->next) { ++nodes; }
        if (nodes != Qcount[0][queue]) { return -1; }
        sum += nodes;
    }
    return sum;
}

} // namespace rvk

extern "C" {

ssize_t __wrap_sendto(int, const void* bytes, size_t count, int, const sockaddr*, socklen_t)
{
    const std::span frame{static_cast<const uint8_t*>(bytes), count};
    if (rvk::world.on_frame) { return rvk::world.on_frame(frame); }
    rvk::world.frames.emplace_back(frame.begin(), frame.end());
    return static_cast<ssize_t>(count);
}

ssize_t __wrap_recvfrom(int, void* room, size_t size, int, sockaddr*, socklen_t*)
{
    if (rvk::world.answers.empty()) {
        errno = EINTR;
        return -1;
    }
    const rvk::frame_bytes_t frame = std::move(rvk::world.answers.front());
    rvk::world.answers.pop_front();
    const size_t taken = std::min(size, frame.size());
    std::copy_n(frame.begin(), taken, static_cast<uint8_t*>(room));
    return static_cast<ssize_t>(taken);
}

int __wrap_sem_wait(sem_t* sem)
{
    for (int steps = 0; sem_trywait(sem) != 0; ++steps) {
        if (!rvk::world.on_wait || steps > 100'000) {
            fprintf(stderr, "a sender waits for ever\n");
            abort();
        }
        rvk::world.on_wait();
    }
    return 0;
}

void __wrap_perror(const char*) { ++rvk::world.errors_printed; }

// Drops what the reports print, whose only format this is.
int __wrap_printf(const char* format, ...) __attribute__((format(printf, 1, 2)));
int __wrap_printf(const char* format, ...)
{
    if (strcmp(format, "%s%s\n end ") == 0) { return 0; }
    va_list arguments;
    va_start(arguments, format);
    const int count = vprintf(format, arguments);
    va_end(arguments);
    return count;
}

int apipc_send(uint32_t to, const void* bytes, uint32_t count)
{
    const std::span message{static_cast<const uint8_t*>(bytes), count};
    if (rvk::world.on_message) {
        rvk::world.on_message(to, message);
    } else {
        rvk::world.messages.push_back({to, {message.begin(), message.end()}});
    }
    return static_cast<int>(count);
}

int apcard_bit_self(void) { return 1; }
}
