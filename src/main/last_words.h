// What the log does for the thread that logs the end: no limits, and no wait for a lock whose owner may have crashed.
#pragma once

#include "base/mutex.h"

#include <atomic>

namespace rvk {

inline thread_local bool log_is_last_words = false; // of the thread that logs the end
inline constexpr int owner_wait_ms = 100;           // ours

// Locks. The thread that logs the end waits at most 100 ms, and not again once that was in vain.
// Result: false when it is not locked; go on without.
[[nodiscard]] inline bool lock_unless_stuck(mutex& m, std::atomic<bool>& owner_is_stuck) RVK_TRY_ACQUIRE(true, m)
{
    if (!log_is_last_words) { return m.lock(), true; }
    if (!owner_is_stuck && m.lock_within(owner_wait_ms)) { return true; }
    owner_is_stuck = true;
    return false;
}

} // namespace rvk
