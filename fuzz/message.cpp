// Any bytes as a message from another process, through the filter and the dispatch, down to a card link that is not
// open. Whatever is answered is whole, goes to the requester, and nothing stays allocated.
//
// The first byte's bit 0 makes it a data message, which chance alone would seldom do. File jobs are turned away: their
// mailbox is closed, as when the file service could not be started.
#include "message_input.h"

#include "ap_msg/file_service.h"
#include "eth_raw/link.h"

using namespace rvk;

extern "C" {

int LLVMFuzzerInitialize(int*, char***)
{
    mailbox_close();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) { return 0; }
    world w;
    g_eth_init[0].active = 0;
    take_message(w, (data[0] & 1) != 0, {data + 1, size - 1});
    require(w.frames.empty() && blocks_in_use() == 0);
    return 0;
}
}
