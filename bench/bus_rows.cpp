// The rows of the ways in that the daemon does not use itself: blocks over the older link, and the picture loader.
//
// Both sides use one and the same socket, in this process: neither way has a thread of its own. The bare loops send the
// very packets that ours sent, recorded at the cards.
#include "base/bytes.h"
#include "base/clock.h"
#include "cards.h"
#include "command/values.h"
#include "eth_raw/bus_block.h"
#include "eth_raw/frame.h"
#include "eth_raw/link.h"
#include "eth_raw/registers.h"
#include "harness.h"
#include "mem/mem.h"
#include "raw_msg/load_picture.h"

#include <unistd.h>

namespace rvk::bench {
namespace {

constexpr uint32_t block_addr = 0x1000000;
constexpr size_t block_packets = (bus_block_max + bus_data_max - 1) / bus_data_max;
constexpr int hor = 1920, ver = 1080;
constexpr uint64_t piece_pause_us = 2; // card

std::vector<uint8_t> block_content()
{
    std::vector<uint8_t> data(bus_block_max);
    for (size_t i = 0; i < data.size(); ++i) { data[i] = static_cast<uint8_t>(i * 7 + i / 256); }
    return data;
}

// Compares a block's operation to its packets, and, where it reads, their answers.
void compare_block(const row& about, simulated_cards& cards, const xfer& link, bool reads,
                   const std::function<void()>& work)
{
    take_processor(sender_priority);
    const auto packets = cards.arriving(block_packets + 1, work);
    require(packets.size() == block_packets, "a block is not the packets it should be");
    bare_link bare(link.sock_fd);
    compare(
        about, [&] { return time_per_unit(block_packets, work); },
        [&] {
            return time_per_unit(block_packets, [&] {
                for (const frame_bytes& packet : packets) {
                    bare.send(packet);
                    if (reads) { bare.await_answer(); }
                }
            });
        });
}

xfer open_block_link()
{
    std::array<xfer, bus_links> links{};
    require(Open_Eth_Raw(links.data(), bus_links) == 0, "the block link cannot be opened");
    return links[0];
}

} // namespace

void bus_write_row()
{
    simulated_cards cards(card_priority);
    const xfer link = open_block_link();
    const std::vector<uint8_t> data = block_content();
    compare_block(
        {"bus-block write of 64 MiB", "`sendto` of the same packets", "ns per packet", 1.15}, cards, link, false,
        [&] { require(Write_FPGA_Bus_Block(&link, block_addr, bus_block_max, data.data()) == 0, "write failed"); });
}

void bus_read_row()
{
    simulated_cards cards(card_priority);
    const xfer link = open_block_link();
    const std::vector<uint8_t> data = block_content();
    std::vector<uint8_t> into(data.size());
    cards.farm.with([&data](farm_content& c) { c.bus_memory.write(block_addr, data); });
    compare_block(
        {"bus-block read of 64 MiB", "`sendto` and `recv` of the same packets", "ns per packet", 1.2}, cards, link,
        true, [&] { require(Read_FPGA_Bus_Block(&link, block_addr, bus_block_max, into.data()) == 0, "read failed"); });
    require(into == data, "a block was not read as it should be");
}

void load_picture_row()
{
    simulated_cards cards(card_priority, "card1");
    require(RawSockMsgInit(1) == 0, "eth1 cannot be opened");
    mem_init();
    constexpr char file[] = "/run/rvk-bench/picture.bmp";
    tool::save(file, tool::bmp_of(std::vector<uint8_t>(size_t{hor} * ver * pixel_bytes, 'Z'), {hor, ver}, 24));
    take_processor(sender_priority);
    const auto load = [&] { require(LoadPicture(0, hor, ver, file, "te", "t10") == 0, "the picture was not loaded"); };
    const auto frames = cards.arriving(20'000, load);
    const stamps at(loader_data[0], "card1");
    const bare_link link(g_eth_init[1].sock_fd);
    compare(
        {"picture loader, 1920 x 1080 into memory 0, first to last frame",
         "`sendto` of the same frames, with the same pauses", "ns per frame", 1.15},
        [&] { return load(), at.ns_per_frame(); },
        [&] {
            for (const frame_bytes& frame : frames) {
                link.send(frame);
                if (load_le32(&frame[request::addr]) == loader_commands[0]) { pause_us(piece_pause_us); }
            }
            return at.ns_per_frame();
        });
    unlink(file);
}

} // namespace rvk::bench
