// Two file jobs back to back, again and again: the second comes while the first runs, is waiting, or has just ended.
#include "system/cards.h"

#include "ap_msg/message.h"
#include "base/bytes.h"

#include <algorithm>
#include <sched.h>
#include <unistd.h>

using namespace rvk;

namespace {

constexpr card_id card{0, 4};
constexpr uint8_t buffer = 2;
constexpr uint16_t pairs = 1000;

// A picture without pixels is three control writes, and its height tells which job it was.
command_fields job_of(uint8_t to_buffer, uint16_t number)
{
    return {.code = command::file_write,
            .slot = card.slot,
            .addr = to_buffer,
            .payload = picture_payload(0, number, "/root/none"),
            .seq = number};
}

class JobOrder : public FilesTest {
protected:
    void pin_thread(const std::string& name, int processor) const
    {
        cpu_set_t set;
        CPU_ZERO(&set);
        CPU_SET(static_cast<size_t>(processor), &set);
        const std::vector<thread_facts> all = threads_of(d->pid());
        const auto found = std::ranges::find(all, name, &thread_facts::name);
        ASSERT_NE(found, all.end());
        EXPECT_EQ(sched_setaffinity(std::stoi(found->tid), sizeof set, &set), 0);
    }
};

} // namespace

TEST_F(JobOrder, NoneIsLostOrDoneTwiceOrOutOfOrder)
{
    const int other = sysconf(_SC_NPROCESSORS_ONLN) > 1 ? 1 : 0;
    const struct {
        const char* where;
        int file_processor;
    } rows[] = {{"dispatch and file service on one processor", 0}, {"on two", other}};
    conversation requester;
    ASSERT_EQ(result_of(requester.ask(job_of(buffer + 1, 0))), 0) << "the thread is there, and where it wants to be";
    uint64_t done = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.where);
        pin_thread("rvk-ipc", 0);
        pin_thread("rvk-file", row.file_processor);
        for (uint16_t job = 0; job < 2 * pairs; job += 2) {
            for (int i = 0; i < 2; ++i) { requester.tell(job_of(buffer, static_cast<uint16_t>(job + i))); }
            for (int i = 0; i < 2; ++i) {
                const auto answer = requester.receive(patience);
                ASSERT_EQ(answer.size(), message_head_bytes) << "job " << job + i;
                ASSERT_EQ(result_of(answer), 0);
                ASSERT_EQ(load_le16(answer.data() + message::seq), job + i);
            }
            done += 2;
            const auto record = picture_of(card, buffer);
            ASSERT_TRUE(record && record->whole);
            ASSERT_EQ(record->set_ups, done);
            ASSERT_EQ(record->ver, job + 1) << "the second is the later one";
        }
        EXPECT_TRUE(requester.is_greeted()) << "and nothing more is answered";
    }
}
