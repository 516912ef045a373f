#include "raw_msg/link_lock.h"

namespace rvk {

mutex find_check_mtx[MAX_ETH];

} // namespace rvk
