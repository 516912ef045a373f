// Tells the service manager that the daemon does its work; one that hears nothing ends it and starts it anew.
#pragma once

namespace rvk {

// Sends a sign of life to $NOTIFY_SOCKET, if there is one, unless the daemon is stuck: an endpoint that was registered
// is no longer reached, or the check passes of an open link stand still. By the status thread, once a second.
void feed_watchdog();

} // namespace rvk
