#include "base/mutex.h"

namespace rvk {
namespace {

short_mutex* newest;

} // namespace

short_mutex::short_mutex() : next(newest) { newest = this; }

void let_holders_run()
{
    for (short_mutex* m = newest; m != nullptr; m = m->next) { const scoped_lock hold(*m); }
}

} // namespace rvk
