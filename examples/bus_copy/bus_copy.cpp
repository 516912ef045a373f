// Copies a file into card memory and back: the whole use of librvkbus in one page.
//
//     bus_copy to   LINK ADDR FILE
//     bus_copy from LINK ADDR FILE LENGTH
//
// LINK is 0 to 2, numbers are decimal or 0x…. Needs root (raw sockets) and an MTU of 9000. Exit status 0, or 1 with the
// library's messages on standard error.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <rvkbus.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <vector>

namespace {

int usage()
{
    std::fputs("usage: bus_copy to LINK ADDR FILE | from LINK ADDR FILE LENGTH\n", stderr);
    return 2;
}

bool copy_to(const rvk::xfer& link, uint32_t addr, const char* file)
{
    std::ifstream in(file, std::ios::binary);
    const std::vector<char> bytes{std::istreambuf_iterator<char>(in), {}};
    const auto* data = reinterpret_cast<const uint8_t*>(bytes.data());
    return !bytes.empty() && bytes.size() <= rvk::bus_block_max &&
           rvk::Write_FPGA_Bus_Block(&link, addr, static_cast<uint32_t>(bytes.size()), data) == 0;
}

bool copy_from(const rvk::xfer& link, uint32_t addr, const char* file, uint32_t length)
{
    // A card that sends nothing is waited for as long as the socket waits.
    const timeval patience{.tv_sec = 1, .tv_usec = 0};
    setsockopt(link.sock_fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    if (length > rvk::bus_block_max) { return false; }
    std::vector<uint8_t> bytes(length);
    if (rvk::Read_FPGA_Bus_Block(&link, addr, length, bytes.data()) != 0) { return false; }
    std::ofstream out(file, std::ios::binary);
    out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out.flush());
}

} // namespace

int main(int argc, char** argv)
{
    const bool to = argc == 5 && std::strcmp(argv[1], "to") == 0;
    const bool from = argc == 6 && std::strcmp(argv[1], "from") == 0;
    if (!to && !from) { return usage(); }
    const unsigned long link = std::strtoul(argv[2], nullptr, 0);
    if (link >= rvk::bus_links) { return usage(); }
    const auto addr = static_cast<uint32_t>(std::strtoul(argv[3], nullptr, 0));
    rvk::xfer links[rvk::bus_links];
    if (rvk::Open_Eth_Raw(links, rvk::bus_links) != 0) { return 1; }
    // Nobody calls Close_Eth_Raw here: it would take the semaphore from every other program that uses it.
    const bool done =
        to ? copy_to(links[link], addr, argv[4])
           : copy_from(links[link], addr, argv[4], static_cast<uint32_t>(std::strtoul(argv[5], nullptr, 0)));
    if (!done) { std::fprintf(stderr, "bus_copy: %s of %s failed\n", argv[1], argv[4]); }
    return done ? 0 : 1;
}
