#include "eth_raw/link.h"

#include "main/log.h"

#include <cstdlib>

namespace rvk {
namespace {

constexpr int min_buffers = 1000;         // ours
constexpr unsigned min_buffer_bytes = 64; // card: the shortest payload

struct min_buffer {
    uint8_t* buf;
    int used;
};

mutex table_mtx;
min_buffer stMinBuff[min_buffers] RVK_GUARDED_BY(table_mtx);
int minbuffercount RVK_GUARDED_BY(table_mtx); // the entry handed out last

} // namespace

int32_t RawMsgInitMinBuffer()
{
    const scoped_lock hold(table_mtx);
    for (min_buffer& entry : stMinBuff) {
        if (entry.buf == nullptr) { entry.buf = static_cast<uint8_t*>(malloc(min_buffer_bytes)); }
        entry.used = 0;
        if (entry.buf == nullptr) { return -1; }
    }
    minbuffercount = 0;
    return 0;
}

void RawMsgUninitMinBuffer()
{
    const scoped_lock hold(table_mtx);
    for (min_buffer& entry : stMinBuff) {
        free(entry.buf);
        entry = {};
    }
    minbuffercount = 0;
}

uint8_t* RawMsgMinBuffGet()
{
    const scoped_lock hold(table_mtx);
    const int next = (minbuffercount + 1) % min_buffers;
    min_buffer& entry = stMinBuff[next];
    if (entry.buf == nullptr || entry.used != 0) {
        log_print(LOG_HERE, "min buffer is %s\n", entry.buf == nullptr ? "NULL" : "not enough");
        return nullptr;
    }
    entry.used = 1;
    minbuffercount = next;
    return entry.buf;
}

void RawMsgMinBuffFree(uint8_t* block)
{
    const scoped_lock hold(table_mtx);
    for (min_buffer& entry : stMinBuff) {
        if (block == nullptr || entry.buf != block) { continue; }
        entry.used = 0;
        return;
    }
    log_print(LOG_HERE, "%p is no small buffer: nothing freed\n", static_cast<void*>(block));
}

} // namespace rvk
