// What the log does once the process is dying: no limit holds, and no lock is waited for whose holder may be dead.
#pragma once

#include "base/mutex.h"

#include <atomic>

namespace rvk {

inline std::atomic<bool> log_is_last_words{false}; // set by whoever buries the process

// Locks as always; of the dying process at most 100 ms are given to a lock, once.
// Result    false: its holder is dead, go past it
[[nodiscard]] inline bool lock_unless_dead(mutex& m, std::atomic<bool>& holder_is_dead) RVK_TRY_ACQUIRE(true, m)
{
    if (!log_is_last_words) { return m.lock(), true; }
    if (!holder_is_dead && m.lock_within(100)) { return true; }
    holder_is_dead = true;
    return false;
}

} // namespace rvk
