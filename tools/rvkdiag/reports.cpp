// See the header. The transport calls apipc_send with locks of its own held, so the lock here is innermost and is held
// for an append only.
#include "rvkdiag/reports.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/mutex.h"
#include "base/pause.h"
#include "platform/platform.h"
#include "queue/queue.h"

#include <utility>

namespace rvk::diag {
namespace {

constexpr uint64_t look_ms = 2;

mutex reports_mtx;
std::vector<report>& reports() RVK_REQUIRES(reports_mtx)
{
    static auto* const kept = new std::vector<report>; // link threads may report while the process exits
    return *kept;
}

report report_of(const uint8_t* message, size_t bytes)
{
    report out;
    out.addr = load_le32(message + message::addr);
    out.result = static_cast<int32_t>(load_le32(message + message::result));
    out.reported_by = pthread_self();
    const uint8_t* const payload = message + message::payload;
    out.data.assign(payload, payload + (bytes - message_head_bytes));
    return out;
}

int32_t pending(int link, int queue)
{
    const scoped_lock hold(mtx[link][queue]);
    return Qcount[link][queue];
}

} // namespace

std::vector<report> take_reports()
{
    const scoped_lock hold(reports_mtx);
    return std::exchange(reports(), {});
}

// A report is made before its request is deleted.
void await_end(int link, int queue)
{
    while (pending(link, queue) != 0) { pause_ms(look_ms); }
}

} // namespace rvk::diag

int apipc_send(uint32_t, const void* message, uint32_t bytes)
{
    if (bytes < rvk::message_head_bytes) { return -1; }
    rvk::diag::report made = rvk::diag::report_of(static_cast<const uint8_t*>(message), bytes);
    const rvk::scoped_lock hold(rvk::diag::reports_mtx);
    rvk::diag::reports().push_back(std::move(made));
    return 0;
}
