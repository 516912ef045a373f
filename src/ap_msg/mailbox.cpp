#include "ap_msg/mailbox.h"

#include "base/mutex.h"

#include <algorithm>

namespace rvk {

mutex file_mutex;
fair_mutex demo_mutex;
mailbox_area file_name_data;
mailbox_area file_write_head;
std::atomic<int> gbUpdateProcessRunning{0};

namespace {

// Both are ready before main starts, so before any thread can use them.
semaphore sem_file_write{0}; // a job is in the slot
semaphore sem_slot_free{1};
bool closed RVK_GUARDED_BY(file_mutex);
bool used RVK_GUARDED_BY(file_mutex); // a job was put: without its thread it is in the slot still

void fill(mailbox_area* area, std::span<const uint8_t> bytes)
{
    area->fill(0);
    std::copy_n(bytes.begin(), std::min(bytes.size(), area->size()), area->begin());
}

} // namespace

int32_t mailbox_put(std::span<const uint8_t> data, std::span<const uint8_t> head)
{
    sem_slot_free.wait();
    {
        const scoped_lock hold(file_mutex);
        if (closed) {
            sem_slot_free.post(); // for whoever comes next
            return -1;
        }
        used = true;
        fill(&file_name_data, data);
        fill(&file_write_head, head);
    }
    sem_file_write.post();
    return 0;
}

void mailbox_wait() { sem_file_write.wait(); }

void mailbox_free() { sem_slot_free.post(); }

bool mailbox_close()
{
    const scoped_lock hold(file_mutex);
    closed = true;
    sem_slot_free.post();
    return used;
}

} // namespace rvk
