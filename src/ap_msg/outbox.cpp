// The outbox: messages for requesters whose queue is full are kept and offered again, so that no thread waits for them.
#include "ap_msg/message.h"

#include "base/clock.h"
#include "base/counters.h"
#include "base/mutex.h"
#include "main/log.h"
#include "platform/platform.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace rvk {
namespace {

constexpr uint32_t outbox_patience_ms = 10'000; // ours: then it does not read, and its message is dropped
constexpr int offered_at_once = 256;            // ours: of one requester; a pass is short whatever is kept
// ours: kept of all requesters, and of one, so that others' are kept, too; more are dropped at once
constexpr size_t outbox_messages_max = 65'536, outbox_share_max = 8192;

// A kept message, its bytes behind it. A requester's first has its last, their count, the next requester's first.
struct kept_message {
    kept_message *next, *last, *next_requester;
    uint32_t to, since_us, bytes, count; // kept since, as monotonic_us() says
};
struct loss {
    uint32_t to, messages;
    int error; // of the last one
};

mutex outbox_mtx;
kept_message* firsts RVK_GUARDED_BY(outbox_mtx);
std::atomic<size_t> kept{0}, requesters{0}; // kept, and who they are for; written under the mutex

kept_message** first_of(uint32_t requester) RVK_REQUIRES(outbox_mtx)
{
    kept_message** at = &firsts;
    while (*at != nullptr && (*at)->to != requester) { at = &(*at)->next_requester; }
    return at;
}

bool has_kept(uint32_t requester)
{
    const scoped_lock hold(outbox_mtx);
    return *first_of(requester) != nullptr;
}

bool keep(uint32_t requester, const void* message, uint32_t bytes) // false: the outbox or the memory is full
{
    auto* l = static_cast<kept_message*>(kept < outbox_messages_max ? malloc(sizeof(kept_message) + bytes) : nullptr);
    if (l == nullptr) { return false; }
    *l = {nullptr, nullptr, nullptr, requester, monotonic_us(), bytes, 0};
    memcpy(l + 1, message, bytes);
    const scoped_lock hold(outbox_mtx);
    kept_message** first = first_of(requester);
    if (*first != nullptr && (*first)->count >= outbox_share_max) { return free(l), false; }
    if (*first == nullptr) { ++requesters; }
    (*first == nullptr ? *first : (*first)->last->next) = l;
    (*first)->last = l;
    ++(*first)->count, ++kept;
    return true;
}

int log_loss(const loss& lost) // counts it, too; result: -errno, 0 when nothing was lost
{
    if (lost.messages == 0) { return 0; }
    daemon_count.messages_dropped.add(lost.messages);
    const char* reason = lost.error == EAGAIN                                 ? "it does not read, its queue is full"
                         : lost.error == ENOENT || lost.error == ECONNREFUSED ? "it is gone"
                                                                              : strerror(lost.error);
    log_print(LOG_HERE, "%u message(s) to %08x dropped: %s\n", lost.messages, static_cast<unsigned>(lost.to), reason);
    return -lost.error;
}

// Offers the first requester its kept messages and moves it to the end of the list with those it does not take. Under
// the mutex throughout, so that a newer message for it is kept behind them.
loss offer_to_one()
{
    const scoped_lock hold(outbox_mtx);
    kept_message* l = firsts;
    if (l == nullptr) { return {}; } // another link's thread was quicker
    loss lost{l->to, 0, 0};
    uint32_t gone = 0;
    const kept_message was = *l;
    firsts = std::exchange(l->next_requester, nullptr);
    for (int left = offered_at_once; l != nullptr && left > 0; --left) {
        const int error = lost.error == EAGAIN ? EAGAIN : -apipc_send(l->to, l + 1, l->bytes); // still full
        if (error == EAGAIN && monotonic_us() - l->since_us < outbox_patience_ms * 1000) { break; }
        if (error != 0) { lost.error = error, ++lost.messages; }
        free(std::exchange(l, l->next));
        --kept, ++gone;
    }
    if (l != nullptr) { l->last = was.last, l->count = was.count - gone; }
    *first_of(lost.to) = l;
    requesters -= l == nullptr ? 1 : 0;
    return lost;
}

} // namespace

int ApipcDataSend(uint32_t destination, const uint8_t* message, uint32_t n)
{
    const auto bytes = static_cast<uint32_t>(message_head_bytes) + n;
    const bool others_first = requesters != 0 && has_kept(destination); // nearly never
    const int error = others_first ? EAGAIN : -apipc_send(destination, message, bytes);
    return error == 0 || (error == EAGAIN && keep(destination, message, bytes)) ? 0 : log_loss({destination, 1, error});
}

int ApipcDataSendAck(uint32_t destination, const uint8_t* message) { return ApipcDataSend(destination, message, 0); }

void offer_outbox()
{
    for (size_t n = requesters; n > 0; --n) { log_loss(offer_to_one()); }
}

} // namespace rvk
