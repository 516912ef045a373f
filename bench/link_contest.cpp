// See the header.
#include "link_contest.h"

#include "eth_raw/link.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/link_threads.h"
#include "timer/timer.h"

#include <csignal>

namespace rvk::bench {
namespace {

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
    if (initTimer() != 0 || RawMsgRecvTaskCreate(0, &receive) != 0 || RawMsgRecvCheckTaskCreate(0, &check) != 0) {
        fail("the link's threads cannot be started");
    }
    take_processor(sender_priority);
}

worker start_worker(double (*measure)(size_t))
{
    if (RawSockMsgInit(0) != 0) { fail("eth0 cannot be opened"); }
    return {start_link_threads, measure};
}

} // namespace

link_contest::link_contest(double (*measure)(size_t), int card)
    : ours(start_worker(measure)), cards(card), bare(g_eth_init[0].sock_fd)
{
    take_processor(sender_priority);
    bare.make_room_for_replies();
    static_cast<void>(ours.measure(0)); // its threads are up when it answers
    as_bare([this] {
        bare.check_replies_come();
        return 0.0;
    });
}

double link_contest::as_bare(const measurement& loop)
{
    ours.process().stop();
    bare.drain();
    const double taken = loop();
    ours.process().go_on();
    return taken;
}

std::vector<frame_bytes> link_contest::frames_of(size_t argument, size_t max)
{
    return cards.arriving(max, [this, argument] { as_ours(argument); });
}

} // namespace rvk::bench
