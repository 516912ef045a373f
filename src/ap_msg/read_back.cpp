#include "ap_msg/read_back.h"

#include "ap_msg/bitmap.h"
#include "ap_msg/file_request.h"
#include "base/bytes.h"
#include "base/clock.h"
#include "base/counters.h"
#include "base/fd.h"
#include "eth_raw/frame.h"
#include "main/log.h"
#include "platform/platform.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>

namespace rvk {
namespace {

constexpr uint32_t read_command = 0xA0008, read_start = 0xA00FF, read_status = 0xA0FFD, read_window = 0xB0000; // card
constexpr uint32_t unit_bytes = 64;   // card: what a read command counts in
constexpr uint32_t unit_words = 8;    // card: words of 8 bytes in a unit
constexpr uint32_t read_ticks = 3;    // ours
constexpr size_t base_path_max = 255; // ours
constexpr size_t image_name_max = 99; // ours: longer names are cut
constexpr mode_t file_mode = 0644;

uint32_t units_of(size_t bytes) { return static_cast<uint32_t>((bytes + unit_bytes - 1) / unit_bytes); }

void empty(unique_fd* file)
{
    if (*file && ftruncate(file->get(), 0) != 0) { file->reset(); }
}

unique_fd open_or_log(const char* path)
{
    unique_fd file = open_output(path, file_mode);
    if (!file) { log_print(LOG_HERE, "%s: %s\n", printable(path).text, open_failure()); }
    return file;
}

// Whether a path leads to an open file, by name or by link.
bool is_same_file(const unique_fd& opened, const char* path)
{
    struct stat of_file = {};
    struct stat of_path = {};
    if (!opened || fstat(opened.get(), &of_file) != 0 || stat(path, &of_path) != 0) { return false; }
    return of_file.st_dev == of_path.st_dev && of_file.st_ino == of_path.st_ino;
}

void write_or_log(const unique_fd& file, std::span<const uint8_t> bytes, off_t at, const char* what, bool* failed)
{
    if (*failed || write_full(file, bytes, at)) { return; }
    log_print(LOG_HERE, "%s file is incomplete: writing %zu bytes at %lld failed (%s)\n", what, bytes.size(),
              static_cast<long long>(at), strerror(errno));
    *failed = true;
}

void reverse_pixels(std::span<uint8_t> bytes)
{
    for (size_t at = 0; at + pixel_bytes <= bytes.size(); at += pixel_bytes) {
        std::reverse(bytes.data() + at, bytes.data() + at + pixel_bytes);
    }
}

// The first line read becomes the top one, which a bottom-up image has at its end.
void write_image_lines(const unique_fd& image, std::span<uint8_t> pixels, picture_size size, bool* failed)
{
    const size_t line = size_t{size.hor} * pixel_bytes;
    for (uint32_t r = 0; r < size.ver; ++r) {
        const auto at = static_cast<off_t>(bmp_head_bytes + (size.ver - 1 - r) * line);
        reverse_pixels(pixels.subspan(r * line, line));
        write_or_log(image, pixels.subspan(r * line, line), at, "image", failed);
    }
}

// Lines in card memory are padded to whole units.
size_t stride_of(size_t line) { return (line + unit_bytes - 1) / unit_bytes * unit_bytes; }

// Reads all lines as they lie in card memory, then copies them without their padding.
void read_lines(const file_request& from, picture_size size, std::span<uint8_t> work, std::span<uint8_t> dest)
{
    counted_transfer progress(transfer::read_back, work.size());
    uint32_t addr = from.addr;
    for (size_t at = 0; at < work.size();) {
        const size_t n = std::min(frame_data_max, work.size() - at);
        // A step that fails is logged by the transport and leaves zeros; the job goes on.
        count_step(DDR2ReadProcess(from.index, from.model, from.slot, addr, work.subspan(at, n)) == 0);
        addr += unit_words * units_of(n);
        at += n;
        progress.reached(at);
    }
    const size_t line = size_t{size.hor} * pixel_bytes;
    for (size_t r = 0; r < size.ver; ++r) {
        memcpy(dest.data() + r * line, work.data() + r * stride_of(line), line);
        let_others_run(copy_turn_us);
    }
}

size_t work_bytes(picture_size size) { return stride_of(size_t{size.hor} * pixel_bytes) * size.ver; }

void read_card(const file_request& r, picture_size size, std::span<uint8_t> work, std::span<uint8_t> into)
{
    timeval start{};
    timeval end{};
    gettimeofday(&start, nullptr);
    read_lines(r, size, work, into);
    gettimeofday(&end, nullptr);
    log_print(LOG_HERE, "\ntotal time:%d sec,%d usec\n", static_cast<int>(end.tv_sec - start.tv_sec),
              static_cast<int>(end.tv_usec - start.tv_usec));
}

// Result: whether both files are whole.
bool read_into_files(const file_request& r, picture_size size, const char* base)
{
    char image_name[job_path_bytes + sizeof ".bmp"];
    snprintf(image_name, sizeof image_name, "%s.bmp", base);
    image_name[image_name_max] = '\0';
    unique_fd image = open_or_log(image_name);
    log_print(LOG_HERE, "\n%d ddr to filename:%s\n", r.index, printable(base).text);
    if (is_same_file(image, base)) { // one file cannot hold both; it is left as it is
        log_print(LOG_HERE, "\nfile open failed\n");
        return false;
    }
    const page_buffer buffer(picture_bytes(size)), work(work_bytes(size));
    if (!buffer || !work) {
        log_print(LOG_HERE, "\nmalloc p failed\n");
        return false;
    }
    empty(&image);
    bool image_failed = false, raw_failed = false;
    if (image) { write_or_log(image, bmp_head(size.hor, size.ver), 0, "image", &image_failed); }
    unique_fd raw = open_or_log(base);
    empty(&raw);
    if (!image || !raw) {
        log_print(LOG_HERE, "\nfile open failed\n");
        return false;
    }
    if (image_failed) { // the disk is full: nothing is read
        empty(&image);
        return false;
    }
    read_card(r, size, work.bytes(), buffer.bytes());
    static_cast<void>(my_system("sync")); // nothing here depends on it
    log_print(LOG_HERE, "\nwait for bmp file generatiiiiing....\n");
    write_or_log(raw, buffer.bytes(), 0, "raw", &raw_failed);
    write_image_lines(image, buffer.bytes(), size, &image_failed);
    if (image_failed) { empty(&image); } // written from its end on, it would have the size of a complete one
    log_print(LOG_HERE, "\n");
    return !raw_failed && !image_failed;
}

} // namespace

int32_t read_file_handle(const mailbox_area&, const mailbox_area& data_head)
{
    const file_request r = file_request_of(data_head);
    picture_size size{};
    job_path path;
    const bool done = read_picture_job(r, base_path_max, &size, &path) == 0 && read_into_files(r, size, path.data());
    count_job(job::read_back, done);
    return 0;
}

void DDR2Read(int index, uint16_t model, uint8_t slot, uint32_t start, uint16_t hor, uint16_t ver,
              std::span<uint8_t> dest)
{
    const picture_size size{hor, ver};
    const page_buffer work(work_bytes(size));
    if (!work) { return log_print(LOG_HERE, "\nmalloc p failed: nothing is read, the picture stays zero\n"); }
    read_lines({index, slot, model, start, {}}, size, work.bytes(), dest);
}

int32_t DDR2ReadProcess(int index, uint16_t model, uint8_t slot, uint32_t addr, std::span<uint8_t> dest)
{
    std::array<uint8_t, 7> what{};
    store_le32(what.data(), addr);
    store_le16(what.data() + 4, static_cast<uint16_t>(units_of(dest.size())));
    static_cast<void>(RawSockSendMsg(index, model, slot, read_command, code_write, what));
    static_cast<void>(RawSockSendMsg(index, model, slot, read_start, code_write, std::array<uint8_t, 1>{1}));
    uint8_t status = 0; // not examined
    uint32_t received = 0;
    static_cast<void>(
        RawSockSendMsgWithReadWait(index, model, slot, read_status, code_read, 1, {&status, 1}, &received, read_ticks));
    return RawSockSendMsgWithReadWait(index, model, slot, read_window, code_read, static_cast<uint32_t>(dest.size()),
                                      dest, &received, read_ticks);
}

} // namespace rvk
