// The status files: once a second the daemon's figures, for whoever wants to see how it is doing without asking it.
//
// status.json and status.prom in /run/rvkd, or in the folder that RVK_STATUS_DIR names; readable by everybody, always
// whole (written beside and renamed). A thread of ordinary priority writes them, which also looks after the links'
// devices, and offers kept answers where no link is open. It waits for nothing that commands wait for, so they go on
// during an update, and while a card or a requester stands still. What stays behind at the daemon's end grows old.
#pragma once

#include <cstdint>

namespace rvk {

// Starts the thread. Result: 0, or -1 (logged); the daemon runs on without.
int32_t start_status_thread();

// What the thread does each second: takes the figures and writes both files. Result: false when one could not be
// written; said in the log once, until it works again.
bool status_step();

// Sends a sign of life to the service manager's $NOTIFY_SOCKET, if there is one, unless the daemon is stuck: an
// endpoint that was registered is no longer reached, or the check passes of an open link stand still. One that hears
// nothing ends the daemon and starts it anew. By the status thread, once a second.
void feed_watchdog();

} // namespace rvk
