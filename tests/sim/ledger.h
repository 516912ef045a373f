// What a random run did and what must come of it: one entry per request, kept from outside by what senders were
// returned, frames carried, answers said and requesters were told. It knows the delivery rules, none of their code.
//
// The driver tells it everything that happens, before the daemon's code sees it. The first thing wrong is kept as text.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace rvk {

// What is written to an address, and read from it, is the same for every request.
[[nodiscard]] std::span<const uint8_t> data_at(uint32_t addr);

struct answer_fields {
    uint8_t code, status;
    uint32_t addr;
    uint16_t seq;
    size_t len;
};

enum class ended : uint8_t { not_yet, well, badly, given_up, not_sent };

struct entry {
    int queue;
    uint32_t addr;
    uint16_t seq;
    uint32_t timeout; // ticks; synchronous
    ended end = ended::not_yet;
    uint8_t status = 255; // of the answer that ended it
    size_t len = 0;       // of its data
    bool sending = true;  // asynchronous: until the sender is back from its first send
    bool refused = false; // by the last answer noted while sending
    int frames = 0;       // given to the system, whatever that did with them
    int refusals = 0;     // that must have been answered with a resend
    int reports = 0;
    int passes_before = 0; // aging passes and ticks of the run when its time began
    int64_t ticks_before = 0;
};

[[nodiscard]] bool is_asynchronous(int queue);
[[nodiscard]] bool is_write(int queue);

class ledger {
public:
    explicit ledger(uint16_t first) : first_seq(first) {}

    size_t open(int queue, uint32_t addr,
                uint32_t timeout);              // a request begins; result: its number, which its frames carry
    void frame(std::span<const uint8_t> bytes); // goes out
    void answer(const answer_fields& said);     // comes in, undamaged
    void aged(int ticks_handed_out);            // an aging pass begins
    void out(size_t id);                        // its first send is over
    void told(uint32_t to, std::span<const uint8_t> message);
    void woken_late(size_t id); // a check pass has woken this one's sender
    void returned_async(size_t id, int32_t result);
    void returned_write(size_t id, int32_t result, uint8_t ack);
    void returned_read(size_t id, int32_t result, std::span<const uint8_t> room, size_t len);
    void close(); // nothing may be pending any more

    void not_sent(size_t id) { entries[id].end = ended::not_sent; }
    [[nodiscard]] const entry& at(size_t id) const { return entries[id]; }
    [[nodiscard]] size_t size() const { return entries.size(); }
    [[nodiscard]] const std::string& wrong() const { return first_wrong; }

private:
    void expect(bool holds, size_t id, const char* what);
    void answer_one(entry& e, const answer_fields& said);
    void expect_time_ran_out(size_t id, int64_t least_ticks);

    uint16_t first_seq;
    std::vector<entry> entries;
    std::array<std::vector<size_t>, 4> of_queue; // entries by the order of their numbers
    int passes = 0;
    int64_t ticks = 0;
    std::string first_wrong;
};

} // namespace rvk
