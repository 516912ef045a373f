// Sends one message within a bounded time. A peer that does not read must cost a link's threads its patience once and
// never keep a healthy one from its answers: peers that used theirs up are remembered in a small table until a send to
// them succeeds. No lock is held while a send waits.
#include "platform/local/endpoint.h"

#include "base/elapsed.h"
#include "base/mutex.h"
#include "base/pause.h"
#include "main/log.h"
#include "platform/platform.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <iterator>

namespace {

constexpr uint32_t patience_us = 20'000; // for a peer whose queue is full
constexpr uint64_t retry_us = 1'000;
constexpr size_t remembered_max = 256; // with one too few, each of them costs its patience in turn

rvk::mutex remembered_mtx;                                          // innermost but for the log's
uint32_t remembered[remembered_max] RVK_GUARDED_BY(remembered_mtx); // oldest first
std::atomic<size_t> remembered_count{0};                            // written under it

bool is_remembered(uint32_t peer)
{
    const rvk::scoped_lock hold(remembered_mtx);
    uint32_t* const end = remembered + remembered_count;
    return std::find(remembered, end, peer) != end;
}

// Nearly always there is none to forget, and a look without the mutex tells. One that is remembered at this moment is
// forgotten by its next message that arrives.
void forget(uint32_t peer)
{
    if (remembered_count == 0) { return; }
    const rvk::scoped_lock hold(remembered_mtx);
    uint32_t* const end = std::remove(remembered, remembered + remembered_count, peer);
    remembered_count = static_cast<size_t>(end - remembered);
}

void remember(uint32_t peer)
{
    forget(peer);
    const rvk::scoped_lock hold(remembered_mtx);
    if (remembered_count == remembered_max) {
        std::copy(std::begin(remembered) + 1, std::end(remembered), std::begin(remembered));
        --remembered_count;
    }
    remembered[remembered_count++] = peer;
}

// The socket's readiness tells nothing about the peer's queue, so the queue is asked by trying.
int send_patiently(int fd, uint32_t peer, std::span<const uint8_t> message)
{
    int error = rvk::local::send_datagram(fd, peer, message);
    if (error != EAGAIN || is_remembered(peer)) { return error; }
    const uint32_t begin = rvk::monotonic_us();
    while (error == EAGAIN && rvk::monotonic_us() - begin < patience_us) {
        rvk::pause_us(retry_us);
        error = rvk::local::send_datagram(fd, peer, message);
    }
    if (error == EAGAIN) { remember(peer); }
    return error;
}

} // namespace

int apipc_send(uint32_t destination, const void* message, uint32_t bytes)
{
    const std::span<const uint8_t> whole{static_cast<const uint8_t*>(message), bytes};
    const int error = send_patiently(rvk::local::process_endpoint.load(), destination, whole);
    if (error == 0) {
        forget(destination);
        return 0;
    }
    const char* reason = error == EAGAIN                            ? "it does not read, its queue is full"
                         : error == ENOENT || error == ECONNREFUSED ? "it is gone"
                                                                    : strerror(error);
    rvk::log_print(LOG_HERE, "message of %u bytes to %08x dropped: %s\n", static_cast<unsigned>(bytes),
                   static_cast<unsigned>(destination), reason);
    return -1;
}
