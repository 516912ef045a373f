// Any bytes as a message from another process, all the way down to simulated cards and back: whatever the cards and the
// socket do wrong, the message is done with in the end, every frame was a good one, and no block is left.
//
// Input: a byte whose bit 0 makes it a data message, a byte that picks the cards' fault (0: none), a byte n for a
// socket that refuses every n-th frame (0: none), then the message.
#include "answers.h"
#include "played_link.h"

#include "ap_msg/endpoint.h"
#include "ap_msg/mailbox.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "platform/platform.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

using namespace rvk;

namespace {

constexpr size_t input_head = 3;

} // namespace

extern "C" {

int LLVMFuzzerInitialize(int*, char***)
{
    open_played_link();
    mailbox_close(); // no thread serves file jobs
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < input_head || size - input_head > message_bytes_max) { return 0; }
    const size_t length = size - input_head;
    const std::unique_ptr<uint8_t[]> message{new uint8_t[length]};
    std::copy(data + input_head, data + size, message.get());
    played_link link;
    played = &link;
    set_fault(link, data[1]);
    link.refuse_every = data[2];
    if (length >= message_head_bytes) {
        if ((data[0] & 1) != 0) {
            store_le16(message.get() + message::msg_type, 0);
            store_le16(message.get() + message::msg_class, static_cast<uint16_t>(data_class));
        }
        answers_go_to = load_le32(message.get() + message::aptid);
    }
    ApipcEventDeal(0, 0, message.get(), static_cast<int>(length));
    drain();
    if (bad_frames(link.farm.counts()) != 0) { abort(); }
    return 0;
}
}
