#include "ap_msg/demo_lock.h"

namespace rvk {

mutex demo_mutex;

} // namespace rvk
