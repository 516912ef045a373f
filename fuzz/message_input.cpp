#include "message_input.h"

#include "ap_msg/dispatch.h"
#include "ap_msg/message.h"
#include "base/bytes.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>

using namespace rvk;

void require(bool holds)
{
    if (!holds) { abort(); }
}

card_faults faults_by_number(uint8_t choice)
{
    card_faults faults{.seed = choice};
    if (choice != 0) { faults.how_often[choice % chance_count].part = 0.5; }
    return faults;
}

void refuse_every(world& w, unsigned n)
{
    if (n == 0) { return; }
    w.on_frame = [&w, n, frames = 0u](std::span<const uint8_t> frame) mutable {
        return ++frames % n == 0 ? -ENETDOWN : w.to_cards(frame);
    };
}

void take_message(world& w, bool make_data, std::span<const uint8_t> bytes)
{
    if (bytes.size() > message_bytes_max) { return; }
    const std::unique_ptr<uint8_t[]> m{new uint8_t[bytes.size()]}; // a byte too far is seen
    std::ranges::copy(bytes, m.get());
    uint32_t requester = 0;
    if (bytes.size() >= message_head_bytes) {
        requester = load_le32(m.get() + message::aptid);
        if (make_data) {
            store_le16(m.get() + message::msg_type, 0);
            store_le16(m.get() + message::msg_class, static_cast<uint16_t>(data_class));
        }
    }
    w.on_message = [requester](const sent_message& said) {
        require(said.to == requester && said.bytes.size() >= message_head_bytes &&
                said.bytes.size() <= message_bytes_max);
    };
    ApipcEventDeal(0, 0, m.get(), static_cast<int>(bytes.size()));
}

void require_good_frames(world& w)
{
    const farm_counts counts = w.farm.counts();
    for (size_t v = first_violation; v < first_of_registers; ++v) { require(counts.violations[v] == 0); }
}
