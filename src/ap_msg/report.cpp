#include "ap_msg/report.h"

#include "ap_msg/message.h"
#include "main/log.h"

#include <array>
#include <unistd.h>

namespace rvk {
namespace {

// Prints a message's head on the console in one call, so that no other thread's output comes between its parts.
void print_head(const char* before, const uint8_t* head)
{
    std::array<char, 3 * message_head_bytes + 1> text;
    for (size_t i = 0; i < message_head_bytes; ++i) { snprintf(text.data() + 3 * i, 4, "%02x ", head[i]); }
    console_print(STDOUT_FILENO, "%s%s\n end ", before, text.data());
}

} // namespace

void report_end(const QNode* node, int32_t result)
{
    if (node->dest == nullptr) { return WriteAckResultReport(node, result); }
    ReadResultReport(node, result);
    ApMsgBuffFree(node->dest);
}

void WriteAckResultReport(const QNode* node, int32_t result)
{
    std::array<uint8_t, message_head_bytes> head;
    make_write_report(head.data(), node->index, node->addr, result);
    char before[64];
    snprintf(before, sizeof before, "WriteAckResultReport result:%d", result);
    print_head(before, head.data());
    static_cast<void>(ApipcDataSendAck(node->requester, head.data())); // nobody is left to tell
}

void ReadResultReport(const QNode* node, int32_t result)
{
    uint8_t* head = ApMsgBuffHeadGet(node->dest);
    make_read_report(head, node->index, node->addr, node->recv_len, result);
    print_head("", head);
    if (result == 0) {
        static_cast<void>(ApipcDataSend(node->requester, head, node->recv_len));
    } else {
        static_cast<void>(ApipcDataSendAck(node->requester, head));
    }
}

} // namespace rvk
