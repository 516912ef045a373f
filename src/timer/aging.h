// The aging pass: hands the ticks counted since the last pass to every pending request of a link.
#pragma once

namespace rvk {

// index   link, 0 to 2
// queues  ages queues 0 to queues - 1 of it, each under its own mutex
// Called by the link's check thread. With several links running, whichever passes first takes the ticks.
void timerUpdate(int index, int queues);

} // namespace rvk
