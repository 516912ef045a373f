// Pictures into card memory: the stream by itself, inside the process, and a whole job of the real rvkd, from the
// command to its answer. The bare loops send the very frames that ours sent, of the data port alone: the three control
// writes count on our side only.
#include "ap_msg/file_service.h"
#include "ap_msg/message.h"
#include "asking.h"
#include "base/fd.h"
#include "base/picture.h"
#include "cables.h"
#include "eth_raw/frame.h"
#include "harness.h"
#include "link_contest.h"
#include "picture_job.h"
#include "processes.h"
#include "rows.h"

#include <algorithm>
#include <fcntl.h>
#include <string>
#include <vector>

namespace rvk::bench {
namespace {

constexpr uint32_t buffer = 1;
constexpr picture_size sizes[] = {{1920, 1080}, {3840, 2160}};
constexpr size_t control_writes = 2; // before the data; one more follows it

std::string name_of(picture_size size) { return std::to_string(size.hor) + " × " + std::to_string(size.ver); }

size_t frames_of_picture(picture_size size)
{
    return control_writes + (picture_bytes(size) + frame_data_max - 1) / frame_data_max + 1;
}

double milliseconds(const std::function<void()>& work) { return time_per_unit(1, work) / 1e6; }

double write_picture(size_t lines)
{
    const auto ver = static_cast<uint16_t>(lines);
    const auto hor = static_cast<uint16_t>(lines * 16 / 9);
    static const std::vector<uint8_t> pixels(picture_bytes(sizes[1]), 0x5A);
    return milliseconds([&] {
        if (lines == 0) { return; }
        if (DDR2Write(0, model, slot, buffer, hor, ver, pixels) != 0) { fail("a picture cannot be written"); }
    });
}

// The frames of one picture again; what `first` does, and the data, are timed.
double picture_bare(const bare_link& link, std::span<const frame_bytes> frames, const std::function<void()>& first)
{
    for (const frame_bytes& frame : frames.first(control_writes)) { link.exchange(frame); }
    const double taken = milliseconds([&] {
        first();
        for (const frame_bytes& frame : frames.subspan(control_writes, frames.size() - control_writes - 1)) {
            link.send(frame);
        }
    });
    link.exchange(frames.back());
    return taken;
}

void check_complete(const std::vector<frame_bytes>& frames, picture_size size)
{
    if (frames.size() != frames_of_picture(size)) {
        fail("a picture came as " + std::to_string(frames.size()) + " frames");
    }
}

void job_line(const settings& chosen, const child& daemon, simulated_cards& cards, asking_process& asker,
              picture_size size)
{
    const picture_job job(size, buffer);
    const unique_fd socket = packet_socket_of(daemon.pid());
    const bare_link link(socket.get());
    const auto frames =
        cards.arriving(frames_of_picture(size), [&] { asker.exchange(own_identity(), job.command(), 0); });
    check_complete(frames, size);
    if (cards.picture(buffer) != job.bytes()) { fail("the cards hold another picture than the file"); }
    std::vector<uint8_t> ready(job.bytes().size(), 0xFF);
    const auto read_file = [&] {
        const unique_fd file = open_regular(job.path().c_str(), O_RDONLY);
        if (!file || read_full(file, ready) != ready.size()) { fail("the picture's file cannot be read"); }
    };
    const auto found = compare(
        chosen.rounds, [&] { return milliseconds([&] { asker.exchange(own_identity(), job.command(), 0); }); },
        [&] {
            daemon.stop();
            const double taken = picture_bare(link, frames, read_file);
            daemon.go_on();
            return taken;
        });
    print_ratio("picture " + name_of(size) + " from a file by rvkd, command to answer",
                "the same loop, and reading the file into memory that is there", "ms", found, 1.15);
}

} // namespace

void picture_row(const settings& chosen)
{
    link_contest contest(write_picture, card_priority);
    for (const picture_size size : sizes) {
        const auto frames = contest.frames_of(size.ver, frames_of_picture(size));
        check_complete(frames, size);
        const auto found = compare(
            chosen.rounds, [&] { return contest.as_ours(size.ver); },
            [&] { return contest.as_bare([&] { return picture_bare(contest.link(), frames, [] {}); }); });
        print_ratio("picture " + name_of(size) + ", inside the process", "`sendto` of ready-made frames", "ms", found,
                    1.12);
    }
}

void picture_job_row(const settings& chosen)
{
    simulated_cards cards(card_priority);
    const child daemon = start_daemon(cards);
    asking_process asker;
    take_processor(sender_priority);
    for (const picture_size size : sizes) { job_line(chosen, daemon, cards, asker, size); }
}

} // namespace rvk::bench
