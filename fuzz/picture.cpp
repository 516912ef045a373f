// Any bytes as a picture file of any name, read by the daemon for a picture of any size and sent. What goes out is the
// control writes in their order and between them hor x ver x 4 bytes: those of the file where its name and its head say
// that they begin, or as many zeros; never one from outside the file.
//
// The two send operations that a picture needs are this target's own: a file costs some system calls, so that a picture
// is a quarter of a millisecond. Input: the fields of input_at, then the file.
#include "private_files.h"

#include "ap_msg/file_service.h"
#include "base/bytes.h"
#include "eth_raw/frame.h"
#include "platform/platform.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <memory>
#include <unistd.h>

using namespace rvk;

extern "C" ssize_t __real_read(int fd, void* into, size_t room);

namespace {

namespace input_at {
constexpr size_t name = 0, kind = 1, fit = 2, read_limit = 3, hor = 4, ver = 6, buffer = 8, file = 12; // 1 1 1 1 2 2 4
}

constexpr const char* endings[] = {".bmp", ".txt", ".BMP", ".bmp.gz", ".txt.bmp", "bmp", "", ".raw"};
constexpr uint8_t kinds = 8;        // of what stands at the path: see input_of
constexpr uint32_t small_side = 70; // a picture of some 14 frames is as good as one of a million
constexpr size_t block_bytes = 16;  // that read_limit counts in

struct input {
    std::string path;
    placed what;
    bool huge, cut; // too large for the memory; cut while it is read
    picture_size size;
    uint32_t buffer;
    std::vector<uint8_t> file;
};

struct outcome {
    uint32_t buffer = 0; // that was asked for
    std::vector<std::vector<uint8_t>> controls;
    std::vector<uint8_t> data;
    bool short_piece = false;
};
outcome* seen = nullptr;
size_t left_to_read = SIZE_MAX;

void require(bool holds)
{
    if (!holds) { abort(); }
}

// Where the pixels begin in a file of these bytes; none when that is nowhere.
std::optional<size_t> start_of_pixels(const input& in)
{
    int64_t start = 0;
    if (in.path.ends_with(".bmp")) {
        if (in.file.size() < 14) { return std::nullopt; }
        start = static_cast<int32_t>(load_le32(in.file.data() + 10));
        if (start <= 0) { return std::nullopt; }
    }
    const int64_t left = static_cast<int64_t>(in.file.size()) - start;
    if (left < static_cast<int64_t>(picture_bytes(in.size))) { return std::nullopt; }
    return static_cast<size_t>(start);
}

// Chance alone seldom makes a file that is just large enough: 1 that, 2 a byte less, 3 a byte more.
void make_fit(input& in, uint8_t fit)
{
    const size_t wanted = picture_bytes(in.size);
    const bool is_bmp = in.path.ends_with(".bmp") && in.file.size() >= 14;
    const size_t start = is_bmp ? load_le32(in.file.data() + 10) % 1024 : 0;
    if (fit == 0) { return; }
    if (is_bmp) { store_le32(in.file.data() + 10, static_cast<uint32_t>(start)); }
    const size_t size = start + wanted + (fit == 3 ? 1 : 0) - (fit == 2 && start + wanted != 0 ? 1 : 0);
    in.file.resize(size, 0x5A);
}

input input_of(std::span<const uint8_t> data)
{
    using enum placed;
    static constexpr placed whats[kinds] = {file, file, file, file, file, nothing, folder, fifo};
    const uint8_t kind = data[input_at::kind] % kinds;
    input in{};
    in.path = std::string("/opt/pictures/p") + endings[data[input_at::name] % std::size(endings)];
    in.what = whats[kind];
    in.huge = kind == 4;
    in.size = {load_le16(&data[input_at::hor]) % small_side, load_le16(&data[input_at::ver]) % small_side};
    in.buffer = load_le32(&data[input_at::buffer]);
    in.file.assign(data.begin() + input_at::file, data.end());
    make_fit(in, data[input_at::fit] % 4);
    const size_t limit = data[input_at::read_limit] * block_bytes;
    in.cut = limit != 0 && limit < in.file.size();
    left_to_read = limit == 0 ? SIZE_MAX : limit;
    return in;
}

// A block of the file's own size, so that a byte too far is seen.
void check_pixels(const input& in)
{
    const std::unique_ptr<uint8_t[]> block{new uint8_t[in.file.size()]};
    std::copy(in.file.begin(), in.file.end(), block.get());
    const auto pixels = pixels_of({block.get(), in.file.size()}, in.path.c_str(), in.size);
    const auto start = start_of_pixels(in);
    require(start ? pixels.data() == block.get() + *start : pixels.data() == nullptr);
    require(pixels.size() == (start ? picture_bytes(in.size) : 0));
}

void check_controls(const input& in)
{
    std::vector<uint8_t> set_up(6);
    store_le16(&set_up[1], static_cast<uint16_t>(in.size.hor));
    store_le16(&set_up[3], static_cast<uint16_t>(in.size.ver));
    set_up[5] = static_cast<uint8_t>(in.buffer);
    require(seen->controls == std::vector<std::vector<uint8_t>>{set_up, {1}, {0}});
}

void check_sent(const input& in)
{
    check_controls(in);
    std::vector<uint8_t> wanted(picture_bytes(in.size));
    const auto start = start_of_pixels(in);
    const bool readable = in.what == placed::file && !in.huge && !in.cut;
    if (readable && start && !wanted.empty()) { memcpy(wanted.data(), in.file.data() + *start, wanted.size()); }
    require(seen->data == wanted);
}

bool is_demo_buffer() { return seen->buffer >= 16 && seen->buffer <= 25; }

} // namespace

namespace rvk {

int32_t send_plain(const card_address& to, uint8_t code, std::span<const uint8_t> data, uint32_t step)
{
    require(to.link == 0 && to.model == 0x1234 && to.slot == 7 && code == code_write && step == 0);
    require(to.addr == (is_demo_buffer() ? 0x60000 : 0x40000) && seen->controls.size() == 2); // between start and end
    require(!data.empty() && !seen->short_piece);
    seen->short_piece = data.size() % frame_data_max != 0; // only the last may be
    seen->data.insert(seen->data.end(), data.begin(), data.end());
    return 0;
}

int32_t RawSockSendMsgWithAckWait(int, uint16_t, uint8_t, uint32_t addr, uint8_t code, std::span<const uint8_t> data,
                                  uint8_t* ack, uint32_t)
{
    require(code == code_write_ack && addr == (is_demo_buffer() ? 0x7080 : 0x7040));
    seen->controls.emplace_back(data.begin(), data.end());
    *ack = seen->controls.size() % 2 == 0 ? ack_good : no_answer; // it makes no difference
    return *ack == no_answer ? -1 : 0;
}

} // namespace rvk

extern "C" {

int apcard_bit_self(void) { return 1; }
int apipc_send(uint32_t, const void*, uint32_t) { abort(); } // nobody asked for this picture

ssize_t __wrap_read(int fd, void* into, size_t room)
{
    if (seen == nullptr) { return __real_read(fd, into, room); }
    const ssize_t n = __real_read(fd, into, std::min(room, left_to_read));
    if (n > 0 && left_to_read != SIZE_MAX) { left_to_read -= static_cast<size_t>(n); }
    return n;
}

int LLVMFuzzerInitialize(int*, char***)
{
    open_private_files();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < input_at::file) { return 0; }
    const input in = input_of({data, size});
    check_pixels(in);
    place(in.path, in.what, in.file);
    if (in.huge) { make_huge(in.path); }
    outcome here;
    here.buffer = in.buffer;
    seen = &here;
    require(write_file_handler(0, 7, 0x1234, in.buffer, in.size.hor, in.size.ver, in.path.c_str()) == 0);
    check_sent(in);
    seen = nullptr;
    clear_private_files();
    return 0;
}
}
