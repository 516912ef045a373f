// The rows that talk to a card from inside the process: plain writes and waited reads, timed and counted.
//
// Both sides use one packet socket, opened before the worker is forked. The worker runs the link's real threads and is
// stopped while the bare loop, a process of its own too, has the socket.
#include "cards.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "harness.h"
#include "mem/mem.h"
#include "processes.h"
#include "queue/queue.h"
#include "raw_msg/link_threads.h"
#include "raw_msg/send.h"
#include "timer/timer.h"

#include <csignal>
#include <cstdlib>

namespace rvk::bench {

constexpr size_t frames_counted = 1000, exchanges = 4000;

// Visible, and never inlined: callgrind finds it by its name.
__attribute__((noinline)) void bare_sends(const bare_link& link, const std::vector<frame_bytes>& frames)
{
    for (const frame_bytes& frame : frames) { link.send(frame); }
}

namespace {

constexpr size_t plain_frames = 6000; // 8 MB
constexpr uint32_t timeout_ticks = 100;

// What the daemon's start does for link 0, once the link is open.
void start_link_threads()
{
    sigset_t ticks;
    sigemptyset(&ticks);
    sigaddset(&ticks, SIGALRM);
    pthread_sigmask(SIG_BLOCK, &ticks, nullptr);
    queue_init();
    mem_init();
    pthread_t receive{}, check{};
    require(initTimer() == 0 && RawMsgRecvTaskCreate(0, &receive) == 0 && RawMsgRecvCheckTaskCreate(0, &check) == 0,
            "the link's threads cannot be started");
    take_processor(sender_priority);
}

// Compares what `ours` does with so many bytes to a loop of bare calls.
void contest(const row& about, double (*ours)(size_t), size_t bytes, const std::function<double(bare_link&)>& bare)
{
    require(RawSockMsgInit(0) == 0, "eth0 cannot be opened");
    bare_link link(g_eth_init[0].sock_fd);
    worker own(ours, start_link_threads);
    worker other([&](size_t) {
        link.drain();
        return bare(link);
    });
    const simulated_cards cards(card_priority);
    compare(
        about, [&] { return own.measure(bytes); },
        [&] { return own.process().stopped([&] { return other.measure(0); }); });
}

double write_plain(size_t bytes)
{
    static const std::vector<uint8_t> data(bytes, 0x5A);
    return time_per_unit(plain_frames, [] {
        require(RawSockSendMsg(0, model, slot, addr, code_write, data) == 0, "plain write failed");
    });
}

double read_waited(size_t bytes)
{
    uint8_t data[frame_data_max];
    return time_per_unit(exchanges, [&data, bytes] {
        for (size_t i = 0; i < exchanges; ++i) {
            uint32_t received = 0;
            require(RawSockSendMsgWithReadWait(0, model, slot, addr, code_read, static_cast<uint32_t>(bytes), data,
                                               &received, timeout_ticks) == 0 &&
                        received == bytes,
                    "read failed");
        }
    });
}

double instructions_per_frame(const std::string& which, const std::string& function)
{
    const std::string text =
        run_program({"valgrind", "--tool=callgrind", "--callgrind-out-file=/dev/null", "--collect-atstart=no",
                     "--toggle-collect=" + function, own_folder() + "/rvk-bench", "--under-callgrind", which});
    constexpr char label[] = "Collected : ";
    const size_t at = text.find(label);
    require(at != std::string::npos, "callgrind counted nothing (apt-get install valgrind)");
    return strtod(text.c_str() + at + sizeof label - 1, nullptr) / static_cast<double>(frames_counted);
}

} // namespace

void count_instructions_of(const std::string& which)
{
    require(RawSockMsgInit(0) == 0, "eth0 cannot be opened");
    mem_init();
    if (which == "ours") {
        const std::vector<uint8_t> data(frames_counted * frame_data_max, 0x5A);
        static_cast<void>(RawSockSendMsg(0, model, slot, addr, code_write, data)); // what failed shows in the count
    } else {
        bare_sends(bare_link(g_eth_init[0].sock_fd), {frames_counted, ready_made(code_write, addr, 0, frame_data_max)});
    }
}

void instructions_row()
{
    print({"instructions in the process per 1,400-byte frame sent", "`sendto` of ready-made frames", "instructions",
           1000, false},
          instructions_per_frame("ours", "rvk::RawSockSendMsg(*"),
          instructions_per_frame("bare", "rvk::bench::bare_sends(*"));
}

void plain_write_row()
{
    const std::vector<frame_bytes> frames(plain_frames, ready_made(code_write, addr, 0, frame_data_max));
    contest({"plain write of 8 MB in 1,400-byte pieces", "`sendto` of ready-made frames", "ns per frame", 1.15},
            write_plain, plain_frames * frame_data_max,
            [&](const bare_link& link) { return time_per_unit(frames.size(), [&] { bare_sends(link, frames); }); });
}

void read_row(size_t bytes)
{
    const frame_bytes ask = ready_made(code_read, addr, 0, bytes);
    contest({"waited read of " + std::to_string(bytes) + " bytes, inside the process",
             "`sendto` and `recvfrom` on one thread", "ns per read", 1.33},
            read_waited, bytes, [&](bare_link& link) {
                return time_per_unit(exchanges, [&] {
                    for (size_t i = 0; i < exchanges; ++i) { link.exchange(ask); }
                });
            });
}

} // namespace rvk::bench
