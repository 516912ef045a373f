// The rows of the ways in that the daemon does not use itself: blocks over the older link, and the picture loader.
//
// Both sides use one and the same socket, in this process: neither way has a thread of its own. The bare loops send the
// very packets that ours sent, recorded at the cards; the picture is timed there too, from its first frame to its last.
#include "base/bytes.h"
#include "base/clock.h"
#include "cables.h"
#include "cardsim/link.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "harness.h"
#include "mem/mem.h"
#include "raw_msg/load_picture.h"
#include "rows.h"

#include <array>
#include <cstdio>
#include <sys/socket.h>
#include <unistd.h>
#include <vector>

namespace rvk::bench {
namespace {

using packets = std::vector<std::vector<uint8_t>>;

constexpr uint32_t block_addr = 0x1000000;
constexpr size_t block_packets = (bus_block_max + bus_data_max - 1) / bus_data_max;
constexpr int hor = 1920, ver = 1080;
constexpr size_t frames_max = 20'000;  // of one run
constexpr uint64_t piece_pause_us = 2; // card
constexpr uint32_t near_command = 0xA0001;

// Cards at the far end of a link, above the sender.
class far_end {
public:
    explicit far_end(const char* interface)
    {
        const link_options how{interface, processor, card_priority, 256 << 20};
        if (const std::string error = link.start(how); !error.empty()) { fail(error); }
    }
    ~far_end()
    {
        if (farm.counts().refused() != 0) { fail("cards refused frames: " + farm.counts().refusals()); }
        if (link.dropped() != 0) { fail("the cards could not keep up, frames were dropped"); }
    }

    // What arrives while `work` runs, and is taken before `work` is over, since the cards come first.
    std::vector<kept_frame> arriving(const std::function<void()>& work)
    {
        auto all = frames_to_cards(farm, frames_max, work);
        if (all.empty()) { fail("nothing arrived at the cards"); }
        return all;
    }

    card_farm farm;

private:
    card_link link{farm};
};

packets frames_of(const std::vector<kept_frame>& recorded)
{
    packets frames;
    for (const kept_frame& r : recorded) { frames.push_back(r.bytes); }
    return frames;
}

void send_bare(int fd, const sockaddr_ll& to, const std::vector<uint8_t>& frame)
{
    const ssize_t sent = sendto(fd, frame.data(), frame.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    if (sent != static_cast<ssize_t>(frame.size())) { fail("a bare send failed"); }
}

std::vector<uint8_t> block_content()
{
    std::vector<uint8_t> data(bus_block_max);
    for (size_t i = 0; i < data.size(); ++i) { data[i] = static_cast<uint8_t>(i * 7 + i / 256); }
    return data;
}

// A file of 24 bits a pixel, as much as the loader looks at: its lines need no padding.
std::string bitmap()
{
    constexpr uint8_t offset = 54;
    std::vector<uint8_t> file(offset + size_t{hor} * ver * 3, 0x5A);
    file[10] = offset;
    std::fill_n(file.begin() + 11, 3, uint8_t{0});
    const std::string path = "/run/rvk-bench/picture" + std::to_string(getpid()) + ".bmp";
    std::FILE* out = std::fopen(path.c_str(), "wb");
    const bool written = out != nullptr && std::fwrite(file.data(), 1, file.size(), out) == file.size();
    if (out == nullptr || std::fclose(out) != 0 || !written) { fail(path + ": cannot be written"); }
    return path;
}

// Milliseconds, by the clock of the cards.
double from_first_to_last(far_end& cards, const std::function<void()>& work)
{
    const auto frames = cards.arriving(work);
    return static_cast<double>(frames.back().time_us - frames.front().time_us) / 1000;
}

} // namespace

void bus_write_row(const settings& chosen)
{
    far_end cards("card0");
    std::array<xfer, bus_links> links{};
    if (Open_Eth_Raw(links.data(), bus_links) != 0) { fail("the block link cannot be opened"); }
    const std::vector<uint8_t> data = block_content();
    take_processor(sender_priority);
    const auto write = [&] {
        if (Write_FPGA_Bus_Block(&links[0], block_addr, bus_block_max, data.data()) != 0) { fail("write failed"); }
    };
    const packets ready = frames_of(cards.arriving(write));
    if (ready.size() != block_packets) { fail("a block is not the packets it should be"); }
    const auto found = compare(
        chosen.rounds, [&] { return time_per_unit(block_packets, write); },
        [&] {
            return time_per_unit(block_packets, [&] {
                for (const auto& packet : ready) { send_bare(links[0].sock_fd, *links[0].sll, packet); }
            });
        });
    print_ratio("bus-block write of 64 MiB", "`sendto` of the same packets", "ns per packet", found, 1.15);
}

void bus_read_row(const settings& chosen)
{
    far_end cards("card0");
    std::array<xfer, bus_links> links{};
    if (Open_Eth_Raw(links.data(), bus_links) != 0) { fail("the block link cannot be opened"); }
    const std::vector<uint8_t> data = block_content();
    std::vector<uint8_t> into(data.size());
    cards.farm.with([&data](farm_content& c) { c.bus_memory.write(block_addr, data); });
    take_processor(sender_priority);
    const auto read = [&] {
        if (Read_FPGA_Bus_Block(&links[0], block_addr, bus_block_max, into.data()) != 0) { fail("read failed"); }
    };
    const packets requests = frames_of(cards.arriving(read));
    if (requests.size() != block_packets || into != data) { fail("a block was not read as it should be"); }
    std::array<uint8_t, bus_packet_max> answer;
    const auto found = compare(
        chosen.rounds, [&] { return time_per_unit(block_packets, read); },
        [&] {
            return time_per_unit(block_packets, [&] {
                for (const auto& request : requests) {
                    send_bare(links[0].sock_fd, *links[0].sll, request);
                    if (recv(links[0].sock_fd, answer.data(), answer.size(), 0) <= 0) { fail("a bare receive failed"); }
                }
            });
        });
    print_ratio("bus-block read of 64 MiB", "`sendto` and `recv` of the same packets", "ns per packet", found, 1.2);
}

void load_picture_row(const settings& chosen)
{
    far_end cards("card1");
    if (RawSockMsgInit(1) != 0) { fail("eth1 cannot be opened"); }
    mem_init();
    const std::string file = bitmap();
    take_processor(sender_priority);
    const auto load = [&] {
        if (LoadPicture(0, hor, ver, file.c_str(), "te", "t10") != 0) { fail("the picture was not loaded"); }
    };
    const packets ready = frames_of(cards.arriving(load));
    const eth_init& link = g_eth_init[1];
    const auto found = compare(
        chosen.rounds, [&] { return from_first_to_last(cards, load); },
        [&] {
            return from_first_to_last(cards, [&] {
                for (const auto& frame : ready) {
                    send_bare(link.sock_fd, link.sll, frame);
                    if (load_le32(frame.data() + request::addr) == near_command) { pause_us(piece_pause_us); }
                }
            });
        });
    unlink(file.c_str());
    print_ratio("picture loader, 1920 x 1080 into memory 0, first to last frame",
                "`sendto` of the same frames, with the same pauses", "ms", found, 1.15);
}

} // namespace rvk::bench
