// The farm's part for the older block protocol: packets that name no card and go to one memory per link.
#include "cardsim/cards.h"

#include "base/bytes.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/frame.h"

#include <array>

namespace rvk {
namespace {

constexpr uint32_t length_too_much = 100; // ours: past the packet's end, and in most cases not past a buffer's
constexpr uint32_t other_addr = 8;        // ours
constexpr uint8_t no_such_type = 4;       // ours

} // namespace

void card_farm::take_bus_packet(std::span<const uint8_t> packet, uint64_t now_us, std::vector<reply_frame>& out)
{
    bus_request request;
    const mistake wrong = check_bus_request(packet, request);
    const bool good = wrong == mistake::none;
    const bool lost = good && happens(fault::loss);
    ++counted.received;
    note_mistake(wrong);
    record(packet, now_us, verdict::good, lost);
    if (!good) { return; }
    ++(request.type == bus_read ? counted.bus_reads : counted.bus_writes);
    reply_frame answer;
    if (lost || !act_on_bus(request, answer)) { return; }
    spoil_bus(answer);
    send_strangers(now_us, out);
    deliver(answer, now_us, out);
}

// Result: there is an answer.
bool card_farm::act_on_bus(const bus_request& request, reply_frame& answer)
{
    if (request.type == bus_read) {
        answer_bus_read(request, answer);
        return true;
    }
    block_memory.write(request.addr, request.data);
    counted.bytes_written += request.data.size();
    if (script.record().bus_responds) { pack_bus_response(answer, request.addr, ack_good); }
    return script.record().bus_responds;
}

void card_farm::answer_bus_read(const bus_request& request, reply_frame& answer)
{
    std::array<uint8_t, bus_data_max> data;
    const auto whole = std::span(data).first(request.length);
    const auto half = whole.first((whole.size() + 1) / 2);
    block_memory.read(request.addr, whole);
    if (happens(fault::bus_refused)) {
        pack_bus_response(answer, request.addr, dice.record().wrong_status);
    } else if (happens(fault::bus_no_data)) {
        pack_bus_response(answer, request.addr, ack_good);
    } else if (happens(fault::bus_data_short)) {
        pack_bus_data(answer, request.addr, half);
    } else if (happens(fault::bus_data_lie)) {
        pack_bus_data(answer, request.addr, half);
        store_le32(answer.bytes.data() + bus::data_len, request.length);
    } else {
        pack_bus_data(answer, request.addr, whole);
    }
}

// What goes wrong with an answer whatever it holds. Its checksum is right, but for damage on the way.
void card_farm::spoil_bus(reply_frame& answer)
{
    uint8_t* p = answer.bytes.data();
    if (happens(fault::bus_length_lie)) { store_le32(p + bus::length, load_le32(p + bus::length) + length_too_much); }
    if (happens(fault::bus_wrong_type)) { p[bus::type] = no_such_type; }
    if (happens(fault::bus_wrong_addr)) { store_le32(p + bus::addr, load_le32(p + bus::addr) ^ other_addr); }
    if (happens(fault::bus_wrong_dest)) { p[offsetof(ethernet_head, destination)] ^= 1; }
    close_bus_answer(answer);
    damage(answer);
}

} // namespace rvk
