// Delivery under fire: a seed decides which requests are made, what the wire and the cards do to them, and who runs
// when. Whatever it is, every request ends once, as the ledger says, and nothing is left over.
//
// RVK_SIM_SEED=n runs one seed only, RVK_SIM_SEEDS=n that many fresh ones.
#include "raw_msg/send.h"
#include "replay/seeds.h"
#include "sim/ledger.h"
#include "sim/world.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace rvk;

namespace {

constexpr int requests = 1000;

struct dice {
    std::mt19937_64 source;
    unsigned below(unsigned n) { return static_cast<unsigned>((source() >> 32) * n >> 32); }
    bool happens(unsigned per_mille) { return below(1000) < per_mille; }
    unsigned chance() { return std::array{0u, 1 + below(50), below(500)}[below(3)]; } // none, small, large
};

// Every fault of cards and cable with a chance of its own.
card_faults any_faults(dice& d)
{
    card_faults faults{
        .seed = d.source(), .wrong_status = static_cast<uint8_t>(1 + d.below(254)), .delay_ms = 1 + d.below(400)};
    const auto of_frames = static_cast<size_t>(fault::bus_refused);
    for (occurrence& o : std::span(faults.how_often).first(of_frames)) { o.part = d.chance() / 1000.0; }
    if (d.happens(50)) { faults[fault::loss].part = 1.0; }
    return faults;
}

class history {
public:
    explicit history(uint64_t seed) : d{std::mt19937_64(seed)}, held(d.chance()), unsent(d.chance() / 4)
    {
        for (sequence* numbers : {&write_ack, &write_ack_wait, &read_ack, &read_wait}) {
            const scoped_lock hold(numbers->mtx);
            numbers->seq = first_number;
        }
        w.farm.set_faults(any_faults(d));
        w.on_frame = [this](auto frame) { return send(frame); };
        w.on_message = [this](const sent_message& m) { book.told(m.to, m.bytes); };
        w.on_wait = [this] {
            if (book.entries[waiting].end != ended::not_yet) { abort(); } // it is over, but its sender still waits
            step(1);
        };
        w.before_send = [this] { hold(); };
        w.after_send = [this] {
            const size_t id = senders.back();
            hold();
            book.out(book.entries[id]);
        };
    }

    std::string play()
    {
        for (int steps = 0; book.wrong.empty() && (book.entries.size() < requests || blocks_in_use() != 0); ++steps) {
            if (book.entries.size() == requests) { w.farm.set_faults({}), unsent = 0; }
            if (steps > 1'000'000) { return "it does not end"; }
            step(0);
        }
        for (int i = 0; i < 20; ++i) { tick(1); } // what is late finds nothing
        while (book.wrong.empty() && !w.wire.empty()) { land(); }
        if (book.wrong.empty()) { book.close(); }
        return book.wrong;
    }

private:
    void step(unsigned depth)
    {
        const unsigned what = d.below(100);
        if (what < 25 && book.entries.size() < requests && depth < 3) { return request(); }
        if (what < 40) { return tick(d.happens(30) ? 10 : 1 + static_cast<int>(d.below(2))); }
        if (what < 45) { return tick(0); }
        if (!w.wire.empty()) { land(); }
    }

    void tick(int handed_out)
    {
        book.aged(handed_out);
        w.tick(handed_out);
        if (synchronous && w.woken() && book.entries[waiting].end == ended::not_yet) {
            book.give_up(book.entries[waiting], static_cast<int>(3 * book.entries[waiting].timeout));
        }
    }

    // One of the frames on the wire arrives.
    void land()
    {
        std::swap(w.wire.front(), w.wire[d.below(static_cast<unsigned>(w.wire.size()))]);
        const bytes_t& b = w.wire.front();
        const size_t len = b.size() < reply::payload ? 0 : load_le16(&b[reply::len]), end = reply::payload + len;
        const bool is_ours =
            b.size() >= end + checksum_bytes && std::ranges::equal(std::span(b).first(6), eth_raw_rx_header) &&
            std::ranges::equal(std::span(b).subspan(6, 6), eth_raw_tx_header) && b[14] == 0xAA && b[15] == 0x55;
        if (is_ours && load_le16(&b[b.size() - 2]) == frame_checksum_plain(&b[16], end - 16)) {
            book.answer(b[reply::code], b[reply::ack], load_le32(&b[reply::addr]), load_le16(&b[reply::seq]), len);
        }
        w.step();
    }

    // A sender is on its way through its send: others run meanwhile.
    void hold()
    {
        if (!d.happens(held)) { return; }
        for (unsigned n = d.below(8); n > 0; --n) { step(static_cast<unsigned>(senders.size())); }
    }

    void request()
    {
        const auto k = static_cast<kind>(synchronous ? 2 * d.below(2) : d.below(4)); // at most one waits in the process
        const uint32_t addr = 0x1000000 + 1000 * d.below(3) + d.below(8), ticks = 1 + d.below(6);
        const size_t id = book.open(k, addr, ticks);
        const auto to = static_cast<uint32_t>(id);
        const auto card = static_cast<uint16_t>(id); // its model, by which it tells requests apart
        const auto data = data_at(addr, length_at(addr));
        const auto n = static_cast<uint32_t>(data.size());
        std::array<uint8_t, frame_data_max> all{};
        const auto dest = std::span(all).first(d.happens(100) ? 3 : all.size());
        uint8_t* const area = k == later_read ? ApMsgBuffGet(frame_data_max) : nullptr;
        uint8_t ack = 0;
        uint32_t got = 0;
        w.farm.with({card, 1}, [&](sim_card& c) { c.registers.write(addr, data_at(addr, reply_data_max)); });
        if (waits(k)) { waiting = id, synchronous = true; }
        senders.push_back(id);
        const int32_t result =
            k == later_write    ? RawSockSendMsgWithAck(to, 0, card, 1, addr, code_write_ack, data)
            : k == later_read   ? RawSockSendMsgWithRead(to, 0, card, 1, addr, code_read, n, {area, frame_data_max})
            : k == waited_write ? RawSockSendMsgWithAckWait(0, card, 1, addr, code_write_ack, data, &ack, ticks)
                                : RawSockSendMsgWithReadWait(0, card, 1, addr, code_read, n, dest, &got, ticks);
        senders.pop_back();
        if (waits(k)) { synchronous = false; }
        if (result != 0) { ApMsgBuffFree(area); }
        book.returned(book.entries[id], result, ack, got, dest);
    }

    // The system call: one that would block asks for the one second attempt; a frame may have arrived, sent or not.
    long send(std::span<const uint8_t> frame)
    {
        const bool fails = d.happens(unsent);
        blocked = fails && !blocked && d.happens(500);
        if (blocked) { return -EAGAIN; }
        entry* const e = book.frame(frame);
        if (e != nullptr && fails && e->frames == 1) { e->unsent = true; }
        if (!fails || d.happens(500)) { w.to_cards(frame); }
        return fails ? -ENOBUFS : static_cast<long>(frame.size());
    }

    dice d;
    unsigned held, unsent; // chances in thousandths
    ledger book;
    world w;
    std::vector<size_t> senders; // inside their calls, the innermost last
    size_t waiting = 0;
    bool synchronous = false, blocked = false;
};

TEST(RandomDelivery, EveryRequestEndsOnceAndNothingIsLeft)
{
    for_seeds("RVK_SIM", 100, [](uint64_t seed) {
        EXPECT_EQ(history(seed).play(), "") << running_seed << " runs it again";
        EXPECT_EQ(blocks_in_use(), 0);
        return !testing::Test::HasFailure();
    });
}

} // namespace
