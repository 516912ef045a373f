// The file services' exchanges with a card, inside the process: a step of a read-back, a piece of a firmware image. The
// bare loops send the very frames that ours sent, and wait for the same answers.
#include "ap_msg/file_service.h"
#include "ap_msg/firmware.h"
#include "cables.h"
#include "eth_raw/frame.h"
#include "harness.h"
#include "link_contest.h"
#include "log_quiet.h"
#include "picture_job.h"
#include "rows.h"

#include <chrono>
#include <cstdio>
#include <span>
#include <string_view>
#include <vector>

namespace rvk::bench {
namespace {

using clock = std::chrono::steady_clock;

constexpr size_t steps = 2000, step_frames = 4;
constexpr size_t pieces = 2000, piece_bytes = 1024, info_frames = 7;
constexpr char image_path[] = "/run/rvk-bench/image.bin";

double read_back(size_t bytes)
{
    uint8_t data[frame_data_max];
    return time_per_unit(steps, [&] {
        for (size_t i = 0; bytes != 0 && i < steps; ++i) {
            if (DDR2ReadProcess(0, model, slot, 0, std::span(data).first(bytes)) != 0) { fail("read-back failed"); }
        }
    });
}

double per_frame_group(const bare_link& link, std::span<const frame_bytes> frames, size_t times, size_t units)
{
    return time_per_unit(units, [&] {
        for (size_t i = 0; i < times; ++i) {
            for (const frame_bytes& frame : frames) { link.exchange(frame); }
        }
    });
}

clock::time_point pieces_begin, pieces_end;

void note_pieces(const char* line)
{
    if (std::string_view(line).starts_with(" file open success")) { pieces_begin = clock::now(); }
    if (std::string_view(line) == "\n") { pieces_end = clock::now(); } // ends the progress line
}

// Nanoseconds per piece, from the first to the last: what builds the temporary file and syncs it does not count.
double update(size_t count)
{
    if (count == 0) { return 0; }
    if (freopen("/dev/null", "w", stdout) == nullptr) { fail("the progress figures have nowhere to go"); }
    log_listener = note_pieces;
    if (sys_update(image_path, model, slot) != 0) { fail("firmware transfer failed"); }
    const std::chrono::duration<double, std::nano> taken = pieces_end - pieces_begin;
    return taken.count() / static_cast<double>(count);
}

} // namespace

void read_back_row(const settings& chosen)
{
    link_contest contest(read_back, card_priority);
    const auto frames = contest.frames_of(frame_data_max, step_frames);
    const auto found = compare(
        chosen.rounds, [&] { return contest.as_ours(frame_data_max); },
        [&] { return contest.as_bare([&] { return per_frame_group(contest.link(), frames, steps, steps); }); });
    print_ratio("read-back step of 1,400 bytes, inside the process", "the same four exchanges on one thread",
                "ns per step", found, 1.45);
}

void firmware_row(const settings& chosen)
{
    make_file(image_path, patterned_bytes(pieces * piece_bytes - image_head_bytes));
    link_contest contest(update, card_priority);
    const auto frames = contest.frames_of(pieces, info_frames + pieces);
    if (frames.size() != info_frames + pieces) { fail("a firmware image came in too few frames"); }
    const auto information = std::span(frames).first(info_frames), image = std::span(frames).subspan(info_frames);
    const auto found = compare(
        chosen.rounds, [&] { return contest.as_ours(pieces); },
        [&] {
            return contest.as_bare([&] {
                per_frame_group(contest.link(), information, 1, 1);
                return per_frame_group(contest.link(), image, 1, pieces);
            });
        });
    print_ratio("firmware piece of 1,024 bytes, inside the process", "stop-and-wait of the same frames on one thread",
                "ns per piece", found, 1.6);
}

} // namespace rvk::bench
