// Answers and reports for requesters whose queue is full: kept, each requester's in their order, and offered again
// without ever waiting, for 10 s. So no thread waits for a requester, and none that reads each within that time loses
// one.
#pragma once

#include <cstddef>
#include <cstdint>

namespace rvk {

inline constexpr uint32_t outbox_patience_ms = 10'000; // ours: then it does not read, and its message is dropped
inline constexpr int offered_at_once = 256;            // ours: of one requester; a pass is short whatever is kept
inline constexpr size_t outbox_messages_max = 65'536;  // ours: of all requesters together; more are dropped at once
inline constexpr uint32_t outbox_share_max = 8192;     // ours: of one requester, likewise: others need room, too

// Sends a message, or keeps a copy of it behind those that its requester has not taken yet.
// Result: 0 when it was sent or kept; negative, logged and counted, when it was dropped. Any thread.
int send_or_keep(uint32_t requester, const void* message, uint32_t bytes);

// Offers each requester what is kept for it, drops what is too old. The links' check threads after each pass; where no
// link is open, the status thread.
void offer_outbox();

} // namespace rvk
