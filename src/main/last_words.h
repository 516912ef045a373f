// What the log does for the thread that buries the process: no limit holds, and no lock is waited for whose holder may
// be dead.
#pragma once

#include "base/mutex.h"

#include <atomic>

namespace rvk {

inline thread_local bool log_is_last_words = false; // of the thread that buries the process, from then on

// Locks as always; that thread gives a lock at most 100 ms, once.
// Result    false: its holder is dead, go past it
[[nodiscard]] inline bool lock_unless_dead(mutex& m, std::atomic<bool>& holder_is_dead) RVK_TRY_ACQUIRE(true, m)
{
    if (!log_is_last_words) { return m.lock(), true; }
    if (!holder_is_dead && m.lock_within(100)) { return true; }
    holder_is_dead = true;
    return false;
}

} // namespace rvk
