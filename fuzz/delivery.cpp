// Any bytes as a message from another process, all the way down to simulated cards and back: whatever the cards and the
// socket do wrong, the message is done with in the end, every frame was a good one, every answer is whole and its
// requester's, and no block is left.
//
// Input: a byte whose bit 0 makes it a data message, a byte that picks the cards' fault (0: none), a byte n for a
// socket that refuses every n-th frame (0: none), then the message.
#include "message_input.h"

#include "ap_msg/file_service.h"

using namespace rvk;

extern "C" {

int LLVMFuzzerInitialize(int*, char***)
{
    mailbox_close(); // no thread serves file jobs
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 3) { return 0; }
    world w;
    w.farm.set_faults(faults_by_number(data[1]));
    refuse_every(w, data[2]);
    take_message(w, (data[0] & 1) != 0, {data + 3, size - 3});
    w.drain();
    require_good_frames(w);
    return 0;
}
}
