#include "link/injected_send.h"

#include "base/mutex.h"
#include "base/pause.h"
#include "eth_raw/link.h"
#include "link/bench_link.h"

#include <cerrno>
#include <deque>
#include <sys/socket.h>

extern "C" {
ssize_t __real_sendto(int fd, const void* data, size_t count, int flags, const sockaddr* to, socklen_t to_bytes);
ssize_t __wrap_sendto(int fd, const void* data, size_t count, int flags, const sockaddr* to, socklen_t to_bytes);
ssize_t __real_recvfrom(int fd, void* data, size_t count, int flags, sockaddr* from, socklen_t* from_bytes);
ssize_t __wrap_recvfrom(int fd, void* data, size_t count, int flags, sockaddr* from, socklen_t* from_bytes);
}

namespace rvk {

std::atomic<uint64_t> receives{0};
std::atomic<uint64_t> overtaken_sends{0};

namespace {

constexpr uint64_t hold_ms = 400; // longer than three periods of three ticks

struct send_plan {
    mutex lock;
    std::deque<send_fate> fates RVK_GUARDED_BY(lock);
    std::vector<uint64_t> times RVK_GUARDED_BY(lock);
};

send_plan& plan()
{
    static auto* const only = new send_plan; // the check thread may send while the process exits
    return *only;
}

send_fate next_fate()
{
    const scoped_lock hold(plan().lock);
    plan().times.push_back(now_us());
    if (plan().fates.empty()) { return send_fate::works; }
    const send_fate fate = plan().fates.front();
    plan().fates.pop_front();
    return fate;
}

ssize_t failed(int error)
{
    errno = error;
    return -1;
}

// Waits until what was received after `before` has been dealt with.
void await_answer_after(uint64_t before)
{
    if (!soon([&] { return receives > before; }, 5000)) { ADD_FAILURE() << "no answer to a frame that went out"; }
}

} // namespace

void plan_sends(std::vector<send_fate> fates)
{
    const scoped_lock hold(plan().lock);
    plan().fates.assign(fates.begin(), fates.end());
    plan().times.clear();
}

std::vector<uint64_t> send_times_us()
{
    const scoped_lock hold(plan().lock);
    return plan().times;
}

} // namespace rvk

ssize_t __wrap_sendto(int fd, const void* data, size_t count, int flags, const sockaddr* to, socklen_t to_bytes)
{
    using namespace rvk;
    if (fd != g_eth_init[0].sock_fd) { return __real_sendto(fd, data, count, flags, to, to_bytes); }
    const send_fate fate = next_fate();
    switch (fate) {
    case send_fate::cut_short: return static_cast<ssize_t>(count) - 1;
    case send_fate::would_block: return failed(EAGAIN);
    case send_fate::no_buffers: return failed(ENOBUFS);
    case send_fate::link_down: return failed(ENETDOWN);
    default: break;
    }
    const uint64_t before = receives;
    const ssize_t sent = __real_sendto(fd, data, count, flags, to, to_bytes);
    if (fate == send_fate::returns_late) { pause_ms(hold_ms); }
    if (fate == send_fate::returns_answered || fate == send_fate::sent_but_denied) { await_answer_after(before); }
    if (receives != before) { ++overtaken_sends; }
    return fate == send_fate::sent_but_denied ? failed(ENOBUFS) : sent;
}

ssize_t __wrap_recvfrom(int fd, void* data, size_t count, int flags, sockaddr* from, socklen_t* from_bytes)
{
    if (fd == rvk::g_eth_init[0].sock_fd) { ++rvk::receives; }
    return __real_recvfrom(fd, data, count, flags, from, from_bytes);
}
