#include "base/counters.h"

namespace rvk {

link_counters link_count[MAX_ETH];
daemon_counters daemon_count;

} // namespace rvk
