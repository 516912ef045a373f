// The lock over the life of a link's pending requests.
#pragma once

#include "base/card_links.h"
#include "base/mutex.h"

namespace rvk {

// One answer, or one check pass, at a time on a link: no node is deleted while a handler or a pass may hold it.
// Taken by the link's two threads, and by a sender to take its node back. Whoever holds it never takes
// write_read_ack_wait_mtx: that one's holder may be asleep until a handler under this lock wakes it.
extern mutex find_check_mtx[MAX_ETH];

} // namespace rvk
