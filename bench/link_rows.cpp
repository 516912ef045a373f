// The rows that talk to a card from inside the process: plain writes, waited reads, acknowledged writes.
#include "cables.h"
#include "eth_raw/frame.h"
#include "harness.h"
#include "link_contest.h"
#include "processes.h"
#include "queue/queue.h"
#include "raw_msg/send.h"
#include "rows.h"

#include <algorithm>
#include <string>
#include <vector>

namespace rvk::bench {
namespace {

constexpr size_t plain_bytes = 8u << 20;
constexpr size_t exchanges = 4000;
constexpr size_t outstanding = 1000;
constexpr uint32_t timeout_ticks = 100;

double write_plain(size_t bytes)
{
    static const std::vector<uint8_t> data(plain_bytes, 0x5A);
    const size_t frames = (bytes + frame_data_max - 1) / frame_data_max;
    return time_per_unit(std::max<size_t>(frames, 1), [bytes] {
        if (RawSockSendMsg(0, model, slot, addr, code_write, std::span(data).first(bytes)) != 0) {
            fail("plain write failed");
        }
    });
}

std::vector<frame_bytes> plain_frames()
{
    std::vector<frame_bytes> frames;
    for (size_t at = 0; at < plain_bytes; at += frame_data_max) {
        const size_t piece = std::min(frame_data_max, plain_bytes - at);
        frames.push_back(ready_made(code_write, static_cast<uint32_t>(addr + at), 0, piece));
    }
    return frames;
}

double read_waited(size_t bytes)
{
    uint8_t data[frame_data_max];
    return time_per_unit(exchanges, [&data, bytes] {
        for (size_t i = 0; bytes != 0 && i < exchanges; ++i) {
            uint32_t received = 0;
            if (RawSockSendMsgWithReadWait(0, model, slot, addr, code_read, static_cast<uint32_t>(bytes), data,
                                           &received, timeout_ticks) != 0 ||
                received != bytes) {
                fail("read failed");
            }
        }
    });
}

double read_bare(const bare_link& link, size_t bytes)
{
    const frame_bytes ask = ready_made(code_read, addr, 0, bytes);
    return time_per_unit(exchanges, [&] {
        for (size_t i = 0; i < exchanges; ++i) {
            link.send(ask);
            link.receive();
        }
    });
}

// A read behind the writes is answered behind them, and says so without a look at the clock.
double write_acknowledged(size_t bytes)
{
    const std::vector<uint8_t> data(bytes, 0x5A);
    return time_per_unit(outstanding, [&data] {
        for (size_t i = 0; !data.empty() && i < outstanding; ++i) {
            if (RawSockSendMsgWithAck(0, 0, model, slot, addr, code_write_ack, data) != 0) { fail("write failed"); }
        }
        uint8_t answer[frame_data_max];
        uint32_t received = 0;
        if (RawSockSendMsgWithReadWait(0, model, slot, addr, code_read, 16, answer, &received, timeout_ticks) != 0) {
            fail("read failed");
        }
        const scoped_lock hold(mtx[0][ACK_QUEUE]);
        if (Qcount[0][ACK_QUEUE] != 0) { fail("writes are pending behind the last answer"); }
    });
}

double acknowledged_bare(const bare_link& link, size_t bytes)
{
    std::vector<frame_bytes> frames;
    for (size_t i = 0; i < outstanding; ++i) {
        frames.push_back(ready_made(code_write_ack, addr, static_cast<uint16_t>(i), bytes));
    }
    const frame_bytes last = ready_made(code_read, addr, 0, 16);
    return time_per_unit(outstanding, [&] {
        for (const frame_bytes& frame : frames) { link.send(frame); }
        link.send(last);
        for (size_t i = 0; i <= outstanding; ++i) { link.receive(); }
    });
}

void acknowledged_lines(const settings& chosen, int card, const std::string& when)
{
    link_contest contest(write_acknowledged, card);
    for (const size_t bytes : {size_t{16}, frame_data_max}) {
        const auto found = compare(
            chosen.rounds, [&] { return contest.as_ours(bytes); },
            [&] { return contest.as_bare([&] { return acknowledged_bare(contest.link(), bytes); }); });
        print_ratio("1,000 acknowledged writes of " + std::to_string(bytes) + " bytes, not waited for; cards answer " +
                        when,
                    "the same frames pipelined by one thread", "ns per write", found, 1.25);
    }
}

} // namespace

void plain_write_row(const settings& chosen)
{
    link_contest contest(write_plain, card_priority);
    const std::vector<frame_bytes> frames = plain_frames();
    const auto found = compare(
        chosen.rounds, [&] { return contest.as_ours(plain_bytes); },
        [&] {
            return contest.as_bare([&] {
                return time_per_unit(frames.size(), [&] {
                    for (const frame_bytes& frame : frames) { contest.link().send(frame); }
                });
            });
        });
    print_ratio("plain write of 8 MB in 1,400-byte pieces", "`sendto` of ready-made frames", "ns per frame", found,
                1.15);
}

void read_row(const settings& chosen)
{
    link_contest contest(read_waited, card_priority);
    for (const size_t bytes : {size_t{16}, frame_data_max}) {
        const auto found = compare(
            chosen.rounds, [&] { return contest.as_ours(bytes); },
            [&] { return contest.as_bare([&] { return read_bare(contest.link(), bytes); }); });
        print_ratio("waited read of " + std::to_string(bytes) + " bytes, inside the process",
                    "`sendto` and `recvfrom` on one thread", "ns per read", found, 1.33);
    }
}

void acknowledged_row(const settings& chosen)
{
    child with_quick_cards([&] { acknowledged_lines(chosen, card_priority, "at once"); });
    with_quick_cards.wait();
    acknowledged_lines(chosen, slow_card_priority, "when all are out");
}

} // namespace rvk::bench
