#include "link/collector.h"

#include "base/mutex.h"
#include "platform/platform.h"

#include <utility>

namespace rvk {
namespace {

mutex lock;
std::vector<collected_message>& messages() RVK_REQUIRES(lock)
{
    static auto* const kept = new std::vector<collected_message>; // link threads may send while the process exits
    return *kept;
}

} // namespace

std::vector<collected_message> take_messages()
{
    const scoped_lock hold(lock);
    return std::exchange(messages(), {});
}

} // namespace rvk

int apipc_send(uint32_t destination, const void* message, uint32_t bytes)
{
    const auto* const first = static_cast<const uint8_t*>(message);
    const rvk::scoped_lock hold(rvk::lock);
    rvk::messages().push_back({destination, {first, first + bytes}});
    return 0;
}
