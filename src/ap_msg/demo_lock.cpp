#include "ap_msg/demo_lock.h"

namespace rvk {

fair_mutex demo_mutex;

} // namespace rvk
