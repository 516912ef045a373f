#include "timer/aging.h"

#include "queue/queue.h"
#include "timer/timer.h"

namespace rvk {
namespace {

void age(Timer* timer, int32_t ticks)
{
    const int32_t period = timer->period;
    if (period <= 0) { return; }
    const int32_t left = timer->remaining - ticks;
    timer->remaining = left > 0 ? left : period;
    if (left <= 0) { timer->expired = 1; }
}

} // namespace

void timerUpdate(int index, int queues)
{
    const int32_t ticks = elapsed.exchange(0);
    if (ticks <= 0) { return; }
    for (int queue = 0; queue < queues; ++queue) {
        if (queue_is_empty(index, queue)) { continue; }
        const scoped_lock hold(mtx[index][queue]);
        for (QNode* node = queue_get(index, queue); node != nullptr; node = node->next) { age(&node->timer, ticks); }
    }
}

} // namespace rvk
