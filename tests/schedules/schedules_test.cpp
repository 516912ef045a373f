// Small cases of delivery under every interleaving: senders of each kind, the link's two threads, at most two requests
// of a link at a time. Whatever the schedule, each request ends exactly once and gives everything back, and whoever
// waits for its turn sees no other sender take two.
#include "cardsim/frames.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "explorer.h"
#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/link_threads.h"
#include "raw_msg/send.h"
#include "timer/timer.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/socket.h>

using namespace rvk;

namespace {

constexpr uint32_t addr_of_first = 0x100, addr_step = 0x100; // of the requests
constexpr int ticks_to_the_end = 9;                          // of a request that is not answered, from its first frame

constexpr char kinds[] = "wWrR"; // by their queues: a write, a read; capital: waited for

struct story {
    std::string senders; // a kind each
    // What the receive thread meets, each when a frame is out: a, b an answer to that sender's request; ! a refusal
    // of a's; < an answer to a before its frame; > one after three of them, at the latest with all senders back.
    std::string answers;
    size_t failing_sends = 0;
    bool is_emptied = false; // somebody empties the queue of the first sender
    int more_by_first = 0;   // requests that it makes after its first
};

struct asked {
    int calls = 0, reports = 0, frames = 0;
    int32_t result = 1; // of its call; 1: not back
    int ticks_at_first_frame = 0, ticks_at_end = 0;
    int passed_over = 0; // while it waited to be sent
};

story told;
std::vector<asked> requests;
reply_frame arriving;
size_t frames_out, senders_back;
int ticks, blocks_before;

constexpr size_t sender_of(uint32_t addr) { return addr / addr_step - 1; }
bool waits(size_t n) { return isupper(told.senders[n]) != 0; }
bool reads(size_t n) { return tolower(told.senders[n]) == 'r'; }
int queue_of(size_t n) { return static_cast<int>(strchr(kinds, told.senders[n]) - kinds); }

int32_t ask(int queue, uint32_t addr)
{
    static const uint8_t data[] = {1, 2, 3};
    uint8_t ack = no_answer;
    uint8_t read[8];
    uint32_t len = 0;
    switch (queue) {
    case ACK_QUEUE: return RawSockSendMsgWithAck(7, 0, 0, 1, addr, code_write_ack, data);
    case ACK_WAIT_QUEUE: return RawSockSendMsgWithAckWait(0, 0, 1, addr, code_write_ack, data, &ack, retry_ticks);
    case READ_WAIT_QUEUE: return RawSockSendMsgWithReadWait(0, 0, 1, addr, code_read, 3, read, &len, retry_ticks);
    default: break;
    }
    uint8_t* dest = RawMsgBuffGet(8);
    const int32_t result = RawSockSendMsgWithRead(7, 0, 0, 1, addr, code_read, 3, {dest, 8});
    if (result != 0) { RawMsgBuffFree(dest); }
    return result;
}

void send_as(size_t n)
{
    for (int i = 0; i <= (n == 0 ? told.more_by_first : 0); ++i) {
        requests[n].result =
            ask(queue_of(n), addr_of_first + addr_step * static_cast<uint32_t>(n) + static_cast<uint32_t>(i));
        ++requests[n].calls;
    }
    ++senders_back;
}

void answer_one(char what)
{
    const size_t n = what == 'b' ? 1 : 0;
    const size_t after = what == '<' ? 0 : what == '>' ? 3 : 1;
    wait_until([after] { return frames_out >= after || senders_back == requests.size(); });
    static const uint8_t data[] = {9, 8, 7};
    request_fields to;
    to.addr = addr_of_first + addr_step * static_cast<uint32_t>(n);
    const std::span<const uint8_t> none, three = data;
    pack_reply(arriving, to, what == '!' ? 2 : 0, reads(n) ? code_read : code_write_ack,
               reads(n) && what != '!' ? three : none);
    receive_step(0);
}

void answer_all() { std::ranges::for_each(told.answers, answer_one); }

bool is_at_rest()
{
    int32_t pending = 0;
    for (int q = 0; q < queue_numbers; ++q) { pending += Qcount[0][q]; }
    return senders_back == requests.size() && pending == 0;
}

void let_time_pass()
{
    for (int round = 0; !is_at_rest(); ++round) {
        const bool is_early = round < (requests.size() == 1 ? 4 : 2); // later ones only when nobody else can run
        is_early ? may_switch() : wait_for_others();
        for (uint32_t i = 0; i < retry_ticks; ++i) { catch_alarm(SIGALRM); }
        ticks += static_cast<int>(retry_ticks);
        static_cast<void>(check_step(0));
    }
}

int32_t blocks_out()
{
    int32_t sum = 0;
    for (size_t type = 0; type < mem_classes; ++type) { sum += mem_in_use(static_cast<int>(type)); }
    return sum;
}

void begin()
{
    requests.assign(told.senders.size(), {});
    frames_out = senders_back = 0;
    ticks = 0;
    blocks_before = blocks_out();
    elapsed = 0;
    g_eth_init[0].active = 1;
    queue_init();
    for (sequence* s : {&write_ack, &write_ack_wait, &read_ack, &read_wait}) {
        const scoped_lock hold(s->mtx);
        s->seq = 0;
    }
    request_ended = [](const QNode* node, int32_t) {
        asked& a = requests[sender_of(node->addr)];
        ++a.reports;
        a.ticks_at_end = ticks;
        RawMsgBuffFree(node->dest);
    };
}

std::string wrong_with(size_t n)
{
    const asked& a = requests[n];
    const bool is_filed = a.result == 0 && !waits(n);
    if (a.calls == 0) { return "a call did not return"; }
    if (a.reports > (is_filed ? 1 : 0)) { return "a report too many"; }
    if (is_filed && reads(n) && a.reports == 0 && !told.is_emptied) { return "a read without a report"; }
    if (a.passed_over > 1) { return "passed over twice"; }
    const int took = a.ticks_at_end - a.ticks_at_first_frame;
    if (a.reports == 0 || !told.answers.empty() || (a.frames == 3 && took >= ticks_to_the_end)) { return ""; }
    return "given up after " + std::to_string(a.frames) + " frames and " + std::to_string(took) + " ticks";
}

std::string end()
{
    for (size_t n = 0; n < requests.size(); ++n) {
        if (std::string wrong = wrong_with(n); !wrong.empty()) { return wrong; }
    }
    // What was dropped with its queue keeps its frame and its destination.
    const int32_t left = blocks_out() - blocks_before;
    return left == 0 || (told.is_emptied && left == 2) ? "" : std::to_string(left) + " blocks are left";
}

void expect_right(const story& s)
{
    SCOPED_TRACE("senders " + s.senders + ", answers " + s.answers);
    told = s;
    std::vector<actor> actors;
    for (size_t n = 0; n < s.senders.size(); ++n) {
        actors.push_back({std::string(1, static_cast<char>('a' + n)), [n] { send_as(n); }});
    }
    if (!s.answers.empty()) { actors.push_back({"receive", answer_all}); }
    if (s.is_emptied) {
        actors.push_back({"emptier", [] {
                              const scoped_lock hold(find_check_mtx[0]);
                              queue_empty(0, queue_of(0));
                          }});
    }
    actors.push_back({"check", let_time_pass});
    printf("%-3s %-2s %zu schedules\n", s.senders.c_str(), s.answers.c_str(), explore(actors, begin, end));
}

} // namespace

extern "C" {

ssize_t __wrap_sendto(int, const void* bytes, size_t count, int, const sockaddr*, socklen_t)
{
    may_switch();
    if (frames_out++ < told.failing_sends) {
        errno = ENETDOWN;
        return -1;
    }
    request_fields fields;
    static_cast<void>(check_request({static_cast<const uint8_t*>(bytes), count}, fields));
    const size_t by = sender_of(fields.addr);
    asked& a = requests[by];
    if (a.frames++ == 0) { a.ticks_at_first_frame = ticks; }
    for (size_t n = 0; n < requests.size(); ++n) {
        if (n != by && waits(n) && waits(by) && requests[n].frames == 0 && is_waiting(n)) { ++requests[n].passed_over; }
    }
    return static_cast<ssize_t>(count);
}

ssize_t __wrap_recvfrom(int, void* into, size_t, int, sockaddr*, socklen_t*)
{
    std::ranges::copy(arriving, static_cast<uint8_t*>(into));
    return std::ssize(arriving);
}
}

TEST(Schedules, EachRequestEndsOnce)
{
    std::vector<story> stories{{"r", "a", 0, true}, {"ww", "b"}, {"wR", "b"}, {"RR", "a"}, {"RW", "b"}};
    for (const char* kind : {"w", "W", "r", "R"}) {
        for (const char* answers : {"", "a", "aa", "<", "!a", ">"}) { stories.push_back({kind, answers}); }
        stories.push_back({kind, "a", 1});
    }
    for (const story& s : stories) { expect_right(s); }
}

TEST(Schedules, NobodyIsPassedOverTwice) { expect_right({"RR", "a", 0, false, 1}); }
