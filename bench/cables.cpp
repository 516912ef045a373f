// See the header.
#include "cables.h"

#include "eth_raw/frame.h"
#include "harness.h"

#include <algorithm>
#include <array>
#include <sys/socket.h>

namespace rvk::bench {
namespace {

constexpr size_t reply_bytes_max = 1450;
constexpr int receive_buffer_bytes = 64 << 20;
constexpr size_t foreign_frames = 100; // frames of other programs meanwhile

std::array<uint8_t, reply_bytes_max> received; // as the daemon's: one for the process

} // namespace

std::vector<kept_frame> frames_to_cards(card_farm& farm, size_t max, const std::function<void()>& work)
{
    const auto keep = [&farm](size_t frames) { farm.with([frames](farm_content& c) { c.trail.keep(frames); }); };
    keep(2 * max + foreign_frames); // an answer each
    work();
    auto kept = farm.with([](farm_content& c) { return c.trail.frames(); });
    keep(0);
    const auto is_ours = [](const kept_frame& frame) {
        return std::equal(eth_raw_tx_header.begin(), eth_raw_tx_header.end(), frame.bytes.begin());
    };
    std::erase_if(kept, std::not_fn(is_ours));
    kept.resize(std::min(kept.size(), max));
    return kept;
}

simulated_cards::simulated_cards(int priority)
{
    frame_bytes pattern(frame_data_max);
    for (size_t i = 0; i < pattern.size(); ++i) { pattern[i] = static_cast<uint8_t>(i * 7); }
    farm.with({model, slot}, [&](sim_card& c) { c.registers.write(addr, pattern); });
    link_options how;
    how.processor = processor;
    how.priority = priority;
    if (const std::string error = link.start(how); !error.empty()) { fail(error); }
}

simulated_cards::~simulated_cards()
{
    if (const farm_counts seen = farm.counts(); seen.refused() != 0) {
        fail("cards refused frames: " + seen.refusals());
    }
    if (link.dropped() != 0) { fail("the cards could not keep up, frames were dropped"); }
}

bool simulated_cards::demo_plays() const
{
    const auto lines = farm.playback();
    return std::find(lines.begin(), lines.end(), "a0 := 00") != lines.end();
}

bool simulated_cards::demo_is_over() const
{
    const auto lines = farm.playback();
    return !lines.empty() && lines.back() == end_of_playback;
}

std::vector<frame_bytes> simulated_cards::arriving(size_t max, const std::function<void()>& work)
{
    std::vector<frame_bytes> frames;
    for (kept_frame& frame : frames_to_cards(farm, max, work)) { frames.push_back(std::move(frame.bytes)); }
    return frames;
}

std::vector<uint8_t> simulated_cards::picture(uint8_t buffer)
{
    return farm.with({model, slot}, [buffer](const sim_card& card) {
        const auto record = card.buffers.find(buffer);
        return record == card.buffers.end() ? frame_bytes{} : picture_from(card.pictures, record->second);
    });
}

frame_bytes ready_made(uint8_t code, uint32_t at, uint16_t seq, size_t data_bytes)
{
    frame_bytes buffer(request_bytes_max);
    uint8_t* start = buffer.data() + request::payload;
    for (size_t i = 0; code != code_read && i < data_bytes; ++i) { start[i] = static_cast<uint8_t>(i * 3); }
    const unsigned length = RawMsgHeaderPack(model, slot, code, at, seq, &start, static_cast<uint16_t>(data_bytes));
    buffer.resize(length);
    return buffer;
}

bare_link::bare_link(int socket) : fd(socket)
{
    socklen_t size = sizeof to;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&to), &size) != 0) { fail("the link's socket is not bound"); }
}

void bare_link::send(const frame_bytes& frame) const
{
    const ssize_t sent = sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (sent != static_cast<ssize_t>(frame.size())) { fail("a bare send failed"); }
}

void bare_link::receive() const
{
    if (recvfrom(fd, received.data(), received.size(), 0, nullptr, nullptr) <= 0) { fail("a bare receive failed"); }
}

void bare_link::exchange(const frame_bytes& frame) const
{
    send(frame);
    if (frame[request::code] != code_write) { receive(); }
}

void bare_link::drain() const
{
    while (recvfrom(fd, received.data(), received.size(), MSG_DONTWAIT, nullptr, nullptr) > 0) {}
}

void bare_link::check_replies_come() const
{
    drain();
    send(ready_made(code_read, addr, 1, 16));
    receive();
    if (received[reply::code] != code_read || received[reply::ack] != ack_good || received[reply::payload + 1] != 7) {
        fail("the cards do not answer as they should");
    }
}

void bare_link::make_room_for_replies() const
{
    setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer_bytes, sizeof receive_buffer_bytes);
}

} // namespace rvk::bench
