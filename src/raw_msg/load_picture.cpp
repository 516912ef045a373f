#include "raw_msg/load_picture.h"

#include "base/bytes.h"
#include "base/clock.h"
#include "base/fd.h"
#include "base/picture.h"
#include "eth_raw/frame.h"
#include "eth_raw/registers.h"
#include "main/log.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <utility>

namespace rvk {
namespace {

constexpr uint8_t pixel_mark = 0x55;     // card: in the byte that is not shown
constexpr uint64_t memory0_pause_us = 2; // card
constexpr unsigned bmp_bits = 24;        // of a file's pixel
constexpr size_t bmp_pixel_bytes = bmp_bits / 8;

// Where a picture goes, as the selectors say it.
struct target {
    char ts_sel;
    int fpga_sel, ddr_sel;
};

char at(const char* text, size_t position) { return strlen(text) > position ? text[position] : '\0'; }

void write_port(const target& to, uint32_t port, std::span<const uint8_t> bytes)
{
    RawSockSendMsg(to.fpga_sel == 1 ? 1 : 2, 0, 0, port, code_write, bytes); // logs what fails; the picture goes on
}

// One piece to memory 0.
void DDR2WriteProcess(const target& to, uint32_t addr, std::span<const uint8_t> piece)
{
    write_port(to, loader_data[0], piece);
    write_port(to, loader_commands[0], memory_command(addr, piece.size(), 1));
    pause_us(memory0_pause_us);
}

// One piece to memory 1.
void DDR2WriteProcess2(const target& to, uint32_t addr, std::span<const uint8_t> piece)
{
    write_port(to, loader_data[1], piece);
    log_print(LOG_HERE, "addr = 0x%x\n", addr);
    write_port(to, loader_commands[1], memory_command(addr, piece.size(), 1));
}

// Stages the lines, zero where `picture` has none, at the card's stride, and sends them. Result: 0; -1: no memory.
int32_t DDR2Write(const target& to, uint32_t addr, uint16_t hor, uint16_t ver, std::span<const uint8_t> picture)
{
    log_print(LOG_HERE, "ts_sel=%d,fpga_sel=%d,ddr_sel=%d,addr=0x%x,hor=%d,ver=%d\n", to.ts_sel,
              static_cast<uint8_t>(to.fpga_sel), static_cast<uint8_t>(to.ddr_sel), addr, hor, ver);
    const size_t line = line_bytes({hor, ver}), stride = stride_of({hor, ver});
    const page_buffer staging(stride * ver);
    if (!staging) {
        log_print(LOG_HERE, "picture %d x %d not sent: no memory for its lines\n", hor, ver);
        return -1;
    }
    for (size_t y = 0; y < ver && y * line < picture.size(); ++y) {
        const auto from = picture.subspan(y * line, std::min(line, picture.size() - y * line));
        std::copy(from.begin(), from.end(), staging.bytes().begin() + static_cast<ptrdiff_t>(y * stride));
    }
    if (to.ts_sel != 'e' || (to.fpga_sel != 0 && to.fpga_sel != 1)) { return 0; }
    for (size_t from = 0; from < stride * ver; from += loader_piece_max) {
        const auto piece = staging.bytes().subspan(from, std::min(loader_piece_max, stride * ver - from));
        if (to.ddr_sel == 0) { DDR2WriteProcess(to, addr, piece); }
        if (to.ddr_sel == 1) { DDR2WriteProcess2(to, addr, piece); }
        addr += static_cast<uint32_t>(burst_words * bursts_of(piece.size()));
    }
    return 0;
}

// A file's rows stand bottom up, each padded to a multiple of 4 bytes; pixels that the file has too little stay zero.
void convert_bmp(std::span<const uint8_t> pixels, size_t hor, size_t ver, std::span<uint8_t> picture)
{
    const size_t row = bmp_line_bytes(static_cast<uint32_t>(hor), bmp_bits);
    for (size_t y = 0; y < ver; ++y) {
        uint8_t* out = picture.data() + (ver - 1 - y) * hor * pixel_bytes;
        for (size_t x = 0; x < hor; ++x, out += pixel_bytes) {
            const size_t from = y * row + x * bmp_pixel_bytes;
            if (from + bmp_pixel_bytes > pixels.size()) { return; }
            out[0] = pixel_mark;
            out[1] = pixels[from + 2];
            out[2] = pixels[from + 1];
            out[3] = pixels[from];
        }
    }
}

int32_t load(const target& to, uint32_t addr, uint16_t hor, uint16_t ver, std::string_view name,
             std::span<const uint8_t> file)
{
    if (!name.ends_with(".bmp")) {
        const int32_t result = DDR2Write(to, addr, hor, ver, file);
        if (!name.ends_with(".txt")) { log_print(LOG_HERE, "\nfile format error\n"); }
        return result;
    }
    const bool has_head = file.size() >= bmp::pixels_at_end;
    const uint32_t offset = has_head ? load_le32(file.data() + bmp::pixels_at) : 0;
    log_print(LOG_HERE, "offset = %d\n", static_cast<int>(offset));
    const page_buffer picture(size_t{hor} * ver * pixel_bytes);
    if (!picture) {
        log_print(LOG_HERE, "\nmalloc buffer failed\n");
        return -1;
    }
    if (has_head && offset <= file.size()) { convert_bmp(file.subspan(offset), hor, ver, picture.bytes()); }
    return DDR2Write(to, addr, hor, ver, picture.bytes());
}

} // namespace

int32_t LoadPicture(uint32_t addr, int hor, int ver, const char* name, const char* ts_sel, const char* fpga_sel)
{
    log_print(LOG_HERE, "%s file %s\n", access(name, F_OK) == 0 ? "found" : "not found", name);
    if (hor < 0 || ver < 0 || hor > side_max || ver > side_max) {
        log_print(LOG_HERE, "picture %d x %d refused: hor and ver are 0 to %d\n", hor, ver, side_max);
        return -1;
    }
    if (static_cast<uint64_t>(hor) * static_cast<uint64_t>(ver) > pixels_max) {
        log_print(LOG_HERE, "picture %d x %d refused: it has 2^29 pixels or more\n", hor, ver);
        return -1;
    }
    const unique_fd opened = open_regular(name, O_RDONLY);
    const off_t bytes = opened ? size_of(opened) : -1;
    if (bytes < 0) { return -1; }
    const bool fits = std::in_range<size_t>(bytes);
    const page_buffer file(fits ? static_cast<size_t>(bytes) : 0);
    if (!fits || !file) {
        log_print(LOG_HERE, "\nmalloc p failed\n");
        return -1;
    }
    if (read_full(opened, file.bytes()) != file.bytes().size()) {
        log_print(LOG_HERE, "\nfread failed\n");
        return -1;
    }
    const uint32_t start_us = monotonic_us();
    const target to{at(ts_sel, 1), convert_index(at(fpga_sel, 1)), convert_index(at(fpga_sel, 2))};
    if (load(to, addr, static_cast<uint16_t>(hor), static_cast<uint16_t>(ver), name, file.bytes()) != 0) { return -1; }
    log_print(LOG_HERE, "\ntotal time:%f sec\n", seconds_since(start_us));
    log_print(LOG_HERE, "\n");
    return 0;
}

int convert_index(char c)
{
    if (c == '0' || c == 'B' || c == 'b') { return 0; }
    return c == '1' || c == 'A' || c == 'a' ? 1 : -1;
}

void RawMsgWriteTest() {}

} // namespace rvk
