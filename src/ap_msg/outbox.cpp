#include "ap_msg/outbox.h"

#include "base/counters.h"
#include "base/elapsed.h"
#include "base/mutex.h"
#include "main/log.h"
#include "platform/platform.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace rvk {
namespace {

constexpr int offered_at_once = 16; // ours, of one requester: a check pass is short whatever is kept

// A message that is kept, its bytes behind it. Each requester's letters hang on its first, which knows the last of them
// and the first of the next requester. Anybody adds letters; the offering thread alone takes them out.
struct letter {
    letter *next, *last, *next_requester;
    uint32_t to, since_us, bytes; // kept since, by the clock of elapsed.h
};

short_mutex outbox_mtx;
letter* firsts RVK_GUARDED_BY(outbox_mtx);
std::atomic<size_t> kept{0}; // letters; written under the mutex
std::atomic_flag offering;   // a link without both of its threads may have two that offer

letter** first_of(uint32_t requester) RVK_REQUIRES(outbox_mtx)
{
    letter** at = &firsts;
    while (*at != nullptr && (*at)->to != requester) { at = &(*at)->next_requester; }
    return at;
}

bool has_letters(uint32_t requester)
{
    if (kept == 0) { return false; } // nearly always
    const scoped_lock hold(outbox_mtx);
    return *first_of(requester) != nullptr;
}

// Result: false when there is no room for it.
bool keep(uint32_t requester, const void* message, uint32_t bytes)
{
    auto* l = static_cast<letter*>(kept < outbox_messages_max ? malloc(sizeof(letter) + bytes) : nullptr);
    if (l == nullptr) { return false; }
    *l = {nullptr, l, nullptr, requester, monotonic_us(), bytes};
    memcpy(l + 1, message, bytes);
    const scoped_lock hold(outbox_mtx);
    letter** first = first_of(requester);
    if (*first == nullptr) {
        *first = l;
    } else {
        (*first)->last = (*first)->last->next = l;
    }
    ++kept;
    return true;
}

// Result: what its requester has kept next.
letter* take_out(letter* l)
{
    letter* next = nullptr;
    {
        const scoped_lock hold(outbox_mtx);
        letter** first = first_of(l->to);
        next = l->next;
        *first = next != nullptr ? next : l->next_requester;
        if (next != nullptr) { next->last = l->last, next->next_requester = l->next_requester; }
        --kept;
    }
    free(l);
    return next;
}

letter* next_of(const letter* l)
{
    const scoped_lock hold(outbox_mtx);
    return l == nullptr ? firsts : l->next_requester;
}

int discard(uint32_t requester, unsigned messages, int error)
{
    daemon_count.messages_dropped.add(messages);
    const char* reason = error == EAGAIN                            ? "it does not read, its queue is full"
                         : error == ENOENT || error == ECONNREFUSED ? "it is gone"
                                                                    : strerror(error);
    log_print(LOG_HERE, "%u message(s) to %08x dropped: %s\n", messages, static_cast<unsigned>(requester), reason);
    return -error;
}

void offer(letter* l)
{
    const uint32_t to = l->to;
    unsigned dropped = 0;
    int why = 0;
    for (int left = offered_at_once; l != nullptr && left > 0; --left) {
        const int error = -apipc_send(to, l + 1, l->bytes);
        if (error == EAGAIN && monotonic_us() - l->since_us < outbox_patience_ms * 1000) { break; }
        l = take_out(l);
        if (error != 0) { why = error, ++dropped; }
    }
    if (dropped != 0) { discard(to, dropped, why); }
}

} // namespace

int send_or_keep(uint32_t requester, const void* message, uint32_t bytes)
{
    const int error = has_letters(requester) ? EAGAIN : -apipc_send(requester, message, bytes);
    if (error == 0 || (error == EAGAIN && keep(requester, message, bytes))) { return 0; }
    return discard(requester, 1, error);
}

void offer_outbox()
{
    if (kept == 0 || offering.test_and_set()) { return; }
    letter* next = nullptr;
    for (letter* l = next_of(nullptr); l != nullptr; l = next) {
        next = next_of(l);
        offer(l);
    }
    offering.clear();
}

} // namespace rvk
