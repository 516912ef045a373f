// Card memory read back into files: the raw picture, and the same as a bottom-up BMP. A step that the card does not
// answer leaves zeros; the job goes on, and the files are its only result.
#include "ap_msg/file_service.h"

#include "base/bytes.h"
#include "base/clock.h"
#include "base/counters.h"
#include "base/fd.h"
#include "eth_raw/frame.h"
#include "eth_raw/registers.h"
#include "main/log.h"
#include "platform/platform.h"
#include "raw_msg/send.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <sys/stat.h>
#include <sys/time.h>

namespace rvk {
namespace {

constexpr uint32_t read_ticks = 3; // ours
constexpr unsigned image_bits = pixel_bytes * 8;

// One of the two files. A write that fails is logged, and nothing is written any more.
struct output {
    const char* what;
    unique_fd file{};
    bool failed = false;

    void open_or_log(const char* path)
    {
        file = open_output(path, 0644);
        if (!file) { log_print(LOG_HERE, "%s: %s\n", printable(path).text, open_failure()); }
    }

    void empty()
    {
        if (file && ftruncate(file.get(), 0) != 0) { file.reset(); }
    }

    void write(std::span<const uint8_t> bytes, size_t at)
    {
        if (failed || write_full(file, bytes, static_cast<off_t>(at))) { return; }
        log_print(LOG_HERE, "%s file is incomplete: writing %zu bytes at %lld failed (%s)\n", what, bytes.size(),
                  static_cast<long long>(at), strerror(errno));
        failed = true;
    }
};

// Whether a path leads to an open file, by name or by link.
bool is_same_file(const unique_fd& opened, const char* path)
{
    struct stat of_file = {};
    struct stat of_path = {};
    if (!opened || fstat(opened.get(), &of_file) != 0 || stat(path, &of_path) != 0) { return false; }
    return of_file.st_dev == of_path.st_dev && of_file.st_ino == of_path.st_ino;
}

// The first line read becomes the top one, which a bottom-up image has at its end; a pixel's bytes stand in reverse.
void write_image_lines(output* image, std::span<uint8_t> pixels, picture_size size)
{
    const size_t line = line_bytes(size);
    for (uint32_t r = 0; r < size.ver && !image->failed; ++r) {
        const auto bytes = pixels.subspan(r * line, line);
        for (size_t at = 0; at < line; at += pixel_bytes) { std::reverse(&bytes[at], &bytes[at] + pixel_bytes); }
        image->write(bytes, bmp::head_bytes + (size.ver - 1 - r) * line);
    }
}

// Copies the pixels of one step, without the padding of lines.
// at  offset of the step in the padded picture: 1,400 a step, where the card's address moves by 1,408 bytes
void copy_pixels(std::span<const uint8_t> step, size_t at, picture_size size, std::span<uint8_t> dest)
{
    const size_t line = line_bytes(size), stride = stride_of(size);
    for (size_t n = 0; !step.empty(); step = step.subspan(n), at += n) {
        const size_t column = at % stride;
        n = std::min(step.size(), stride - column);
        if (column < line) { memcpy(&dest[at / stride * line + column], step.data(), std::min(n, line - column)); }
    }
}

void read_card(const received_command& c, picture_size size, std::span<uint8_t> into)
{
    timeval start{};
    timeval end{};
    gettimeofday(&start, nullptr);
    DDR2Read(c.index, c.model, c.slot, c.addr, static_cast<uint16_t>(size.hor), static_cast<uint16_t>(size.ver), into);
    gettimeofday(&end, nullptr);
    log_print(LOG_HERE, "\ntotal time:%d sec,%d usec\n", static_cast<int>(end.tv_sec - start.tv_sec),
              static_cast<int>(end.tv_usec - start.tv_usec));
}

// Result: whether both files are whole.
bool read_into_files(const received_command& c, picture_size size, const char* base)
{
    output image{"image"}, raw{"raw"};
    char image_name[mailbox_bytes + sizeof ".bmp"];
    snprintf(image_name, sizeof image_name, "%s.bmp", base);
    image_name[image_name_max] = '\0';
    image.open_or_log(image_name);
    log_print(LOG_HERE, "\n%d ddr to filename:%s\n", c.index, printable(base).text);
    if (is_same_file(image.file, base)) { // one file cannot hold both; it is left as it is
        log_print(LOG_HERE, "\nfile open failed\n");
        return false;
    }
    const page_buffer buffer(picture_bytes(size));
    if (!buffer) {
        log_print(LOG_HERE, "\nmalloc p failed\n");
        return false;
    }
    image.empty();
    if (image.file) { image.write(bmp_head(size, image_bits), 0); }
    raw.open_or_log(base);
    raw.empty();
    if (!image.file || !raw.file) {
        log_print(LOG_HERE, "\nfile open failed\n");
        return false;
    }
    if (image.failed) { // the disk is full: nothing is read
        image.empty();
        return false;
    }
    read_card(c, size, buffer.bytes());
    static_cast<void>(my_system("sync")); // nothing here depends on it
    log_print(LOG_HERE, "\nwait for bmp file generatiiiiing....\n");
    raw.write(buffer.bytes(), 0);
    write_image_lines(&image, buffer.bytes(), size);
    if (image.failed) { image.empty(); } // written from its end on, it would have the size of a complete one
    log_print(LOG_HERE, "\n");
    return !raw.failed && !image.failed;
}

} // namespace

int32_t read_file_handle(const received_command& c)
{
    picture_size size{};
    job_path path;
    const bool done =
        read_picture_job(c.payload, read_back_path_max, &size, &path) == 0 && read_into_files(c, size, path.data());
    count_job(job::read_back, done);
    return 0;
}

void DDR2Read(int index, uint16_t model, uint8_t slot, uint32_t start, uint16_t hor, uint16_t ver,
              std::span<uint8_t> dest)
{
    const picture_size size{hor, ver};
    const size_t total = stride_of(size) * size.ver;
    counted_transfer progress(transfer::read_back, total);
    uint32_t addr = start;
    for (size_t at = 0; at < total;) {
        // Not into `dest`: the answer is copied under the link's lock, where a first touch of a page takes too long.
        std::array<uint8_t, frame_data_max> step{};
        const std::span wanted(step.data(), std::min(step.size(), total - at));
        // A step that fails is logged by the transport and leaves zeros; the job goes on.
        count_step(DDR2ReadProcess(index, model, slot, addr, wanted) == 0);
        copy_pixels(wanted, at, size, dest);
        addr += static_cast<uint32_t>(burst_words * bursts_of(wanted.size()));
        at += wanted.size();
        progress.reached(at);
        let_others_run(long_turn_us); // where every send fails at once, no step waits
    }
}

int32_t DDR2ReadProcess(int index, uint16_t model, uint8_t slot, uint32_t addr, std::span<uint8_t> dest)
{
    const auto command = memory_command(addr, dest.size(), 0);
    static_cast<void>(RawSockSendMsg(index, model, slot, read_command_register, code_write, command));
    static_cast<void>(RawSockSendMsg(index, model, slot, read_start_register, code_write, std::array<uint8_t, 1>{1}));
    uint8_t status = 0; // not examined
    uint32_t received = 0;
    static_cast<void>(RawSockSendMsgWithReadWait(index, model, slot, read_status_register, code_read, 1, {&status, 1},
                                                 &received, read_ticks));
    return RawSockSendMsgWithReadWait(index, model, slot, read_window_register, code_read,
                                      static_cast<uint32_t>(dest.size()), dest, &received, read_ticks);
}

} // namespace rvk
