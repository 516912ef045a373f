// Any bytes as a message from another process, through the filter and the dispatch, down to a card link that is not
// open. Whatever is answered is whole, goes to the requester, and nothing stays allocated.
//
// The first byte's bit 0 makes it a data message, which chance alone would seldom do. File jobs are turned away: their
// mailbox is closed, as when the file service could not be started.
#include "answers.h"

#include "ap_msg/endpoint.h"
#include "ap_msg/mailbox.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "mem/mem.h"
#include "platform/platform.h"
#include "queue/queue.h"

#include <algorithm>
#include <cstdlib>
#include <memory>

using namespace rvk;

extern "C" {

int LLVMFuzzerInitialize(int*, char***)
{
    queue_init();
    mem_init();
    mailbox_close();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0 || size - 1 > message_bytes_max) { return 0; }
    const size_t length = size - 1;
    const std::unique_ptr<uint8_t[]> message{new uint8_t[length]};
    std::copy(data + 1, data + size, message.get());
    if (length >= message_head_bytes) {
        if ((data[0] & 1) != 0) {
            store_le16(message.get() + message::msg_type, 0);
            store_le16(message.get() + message::msg_class, static_cast<uint16_t>(data_class));
        }
        answers_go_to = load_le32(message.get() + message::aptid);
    }
    ApipcEventDeal(0, 0, message.get(), static_cast<int>(length));
    return 0;
}
}
