// See the header.
#include "rvkdiag/reports.h"

#include "ap_msg/message.h"
#include "base/clock.h"
#include "base/mutex.h"
#include "mem/mem.h"
#include "raw_msg/link_threads.h"

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

bool blocks_are_out()
{
    for (size_t type = 0; type < mem_classes; ++type) {
        if (mem_in_use(static_cast<int>(type)) != 0) { return true; }
    }
    return false;
}

} // namespace

void keep_report(const QNode* node, int32_t result)
{
    report made{node->addr, result, node->end != outcome::given_up || node->refusals >= refusals_max, {}};
    if (node->dest != nullptr) {
        if (result == 0) { made.data.assign(node->dest, node->dest + node->recv_len); }
        ApMsgBuffFree(node->dest);
    }
    const scoped_lock hold(reports_mtx);
    reports().push_back(std::move(made));
}

std::vector<report> await_reports()
{
    while (blocks_are_out()) { pause_ms(look_ms); } // a request gives its blocks back after its report
    const scoped_lock hold(reports_mtx);
    return std::exchange(reports(), {});
}

} // namespace rvk::diag
