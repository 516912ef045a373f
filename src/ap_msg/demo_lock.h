// The lock that keeps the dispatch's, the update's and the demo's synchronous card exchanges apart. Has a room of its
// own because the three stand on different floors.
#pragma once

#include "base/mutex.h"

namespace rvk {

// Held around each such exchange, and by the demo for a whole picture: a command from another process waits for it.
extern fair_mutex demo_mutex;

} // namespace rvk
