// Delivers messages to the callback. One thread of the process waits here, at real-time priority: an error that stays
// must neither spin it nor fill the log, so the wait between errors lives here and grows while they last.
#include "platform/local/endpoint.h"

#include "base/clock.h"
#include "main/log.h"
#include "platform/platform.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr uint64_t first_pause_ms = 10, longest_pause_ms = 1000;

rvk::local::receive_buffer incoming; // the waiting thread's own
uint64_t next_pause_ms = 0;          // the waiting thread's own; 0 while all is well

void back_off(int error)
{
    if (next_pause_ms == 0) {
        rvk::log_print(LOG_HERE, "no messages can be received: %s; trying on\n", strerror(error));
        next_pause_ms = first_pause_ms;
    }
    rvk::pause_ms(next_pause_ms);
    next_pause_ms = std::min(next_pause_ms * 2, longest_pause_ms);
}

void note_recovery()
{
    if (next_pause_ms == 0) { return; }
    next_pause_ms = 0;
    rvk::log_print(LOG_HERE, "messages are received again\n");
}

} // namespace

int apipc_loop_wait(int, apipc_callback callback)
{
    for (;;) {
        const ssize_t received = rvk::local::receive_datagram(rvk::local::process_endpoint.load(), incoming, 0);
        if (received < 0 && errno == EINTR) { continue; }
        if (received < 0) {
            back_off(errno);
            return -1;
        }
        note_recovery();
        if (received > 0) { callback(0, 0, incoming.bytes, static_cast<int>(received)); }
    }
}
