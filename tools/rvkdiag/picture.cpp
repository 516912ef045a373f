// Loads a picture into a memory behind link 1 or 2: the loader itself takes whatever it is given, sends nothing when a
// selector selects nothing, and goes on where frames cannot be sent; a person is told. Runs the LVDS test on link 0.
#include "rvkdiag/commands.h"

#include "base/bytes.h"
#include "base/clock.h"
#include "base/counters.h"
#include "base/fd.h"
#include "base/picture.h"
#include "eth_raw/frame.h"
#include "main/diagnosis.h"
#include "raw_msg/load_picture.h"
#include "rvkdiag/link.h"
#include "rvkdiag/log.h"

#include <array>
#include <fcntl.h>

namespace rvk::diag {
namespace {

using namespace tool;

int selected(const std::string& text, size_t position, const char* says)
{
    const int index = text.size() > position ? convert_index(text[position]) : -1;
    if (index >= 0) { return index; }
    fail(problem::wrong_usage, "FPGA_SEL \"%s\" selects nothing, so nothing was sent: %s", text.c_str(), says);
}

constexpr unsigned loader_bits = 24;

void check_file(const picture_options& o)
{
    const auto refuse = [&](const std::string& why) {
        fail(problem::wrong_usage, "file \"%s\" %s", o.file.c_str(), why.c_str());
    };
    const unique_fd file = open_regular(o.file.c_str(), O_RDONLY);
    if (!file) { refuse(std::string("cannot be read: ") + open_failure()); }
    if (!o.file.ends_with(".bmp")) { return; }
    std::array<uint8_t, bmp::head_bytes> head{};
    if (read_full(file, head) != head.size() || head[0] != 'B' || head[1] != 'M') { refuse("is no BMP file"); }
    const uint32_t hor = load_le32(&head[bmp::hor]), ver = load_le32(&head[bmp::ver]);
    const unsigned bits = load_le16(&head[bmp::bits]);
    if (hor == o.size.hor && ver == o.size.ver && bits == loader_bits) { return; }
    refuse(format("is a picture of %d x %d pixels of %u bits: give its size, and one of 24 bits with its bottom line "
                  "first",
                  static_cast<int>(hor), static_cast<int>(ver), bits));
}

// A send that would have blocked was made once more.
uint64_t failed_sends(int link)
{
    const auto& failed = link_count[link].send_failed;
    uint64_t all = 0;
    for (size_t kind = 0; kind < failed.all.size(); ++kind) {
        if (kind != static_cast<size_t>(send_failure::would_block)) { all += failed.all[kind].get(); }
    }
    return all;
}

} // namespace

std::string run_picture(const picture_options& o)
{
    if (o.ts_sel.size() < 2 || o.ts_sel[1] != 'e') {
        fail(problem::wrong_usage, "TS_SEL \"%s\" selects nothing, so nothing was sent: its second character must be e",
             o.ts_sel.c_str());
    }
    const int link =
        selected(o.fpga_sel, 1, "its second character is 1, A or a for link 1, 0, B or b for link 2") == 1 ? 1 : 2;
    const int memory = selected(o.fpga_sel, 2, "its third character is 0, B or b for memory 0, 1, A or a for memory 1");
    check_file(o);
    take_link(link);
    open_link(link, request_bytes_max, false);
    const std::string what = format("picture of %ux%u from %s", o.size.hor, o.size.ver, o.file.c_str());
    if (LoadPicture(o.addr, static_cast<int>(o.size.hor), static_cast<int>(o.size.ver), o.file.c_str(),
                    o.ts_sel.c_str(), o.fpga_sel.c_str()) != 0) {
        fail(problem::no_memory, "%s was not sent%s", what.c_str(), said().c_str());
    }
    if (const uint64_t failed = failed_sends(link); failed != 0) {
        fail(problem::no_answer, "%s: %llu of its frames could not be sent%s", what.c_str(),
             static_cast<unsigned long long>(failed), said().c_str());
    }
    return format("%s%s sent to memory %d of %s at 0x%08x; its frames are not acknowledged\n", what.c_str(),
                  o.file.ends_with(".bmp") ? "" : ", whose bytes are card pixels as they stand,", memory,
                  name_of_link(link).c_str(), o.addr);
}

void run_lvds()
{
    show_log(); // it has no end that could say what was seen
    open_link(0, request_bytes_max, true);
    write_out("asking " + name_of_link(0) +
              " for its LVDS status every 2 s, one that does not answer without a word; a good status is recorded in "
              "/root/lvds_check.txt, and 30 s later this machine reboots; Ctrl-C ends the test\n");
    if (LvdsTestTaskCreate(0) != 0) {
        fail(problem::no_permission, "the test's real-time thread cannot be created: it takes root, or CAP_SYS_NICE");
    }
    for (;;) { pause_ms(1000); }
}

} // namespace rvk::diag
