// Loads a picture into a memory behind link 1 or 2. The loader itself takes whatever it is given and sends nothing when
// a selector selects nothing; a person is told.
#include "rvkdiag/commands.h"

#include "base/fd.h"
#include "command/values.h"
#include "eth_raw/frame.h"
#include "raw_msg/load_picture.h"
#include "rvkdiag/direct_link.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>

namespace rvk::diag {
namespace {

using namespace tool;

int selected(const std::string& text, size_t position, const char* says)
{
    const int index = text.size() > position ? convert_index(text[position]) : -1;
    if (index >= 0) { return index; }
    throw failure{problem::wrong_usage,
                  format("FPGA_SEL \"%s\" selects nothing, so nothing was sent: %s", text.c_str(), says)};
}

void check_file(const std::string& path)
{
    if (open_regular(path.c_str(), O_RDONLY)) { return; }
    throw failure{problem::wrong_usage, "file \"" + path + "\" cannot be read: " +
                                            (errno == EINVAL ? "it is no regular file" : strerror(errno))};
}

} // namespace

std::string run_picture(const picture_options& o)
{
    if (o.ts_sel.size() < 2 || o.ts_sel[1] != 'e') {
        throw failure{problem::wrong_usage,
                      "TS_SEL \"" + o.ts_sel +
                          "\" selects nothing, so nothing was sent: its second character must be e"};
    }
    const int link =
        selected(o.fpga_sel, 1, "its second character is 1, A or a for link 1, 0, B or b for link 2") == 1 ? 1 : 2;
    const int memory = selected(o.fpga_sel, 2, "its third character is 0, B or b for memory 0, 1, A or a for memory 1");
    check_file(o.file);
    open_without_threads(link, request_bytes_max);
    if (LoadPicture(o.addr, static_cast<int>(o.hor), static_cast<int>(o.ver), o.file.c_str(), o.ts_sel.c_str(),
                    o.fpga_sel.c_str()) != 0) {
        throw failure{problem::wrong_usage, "picture \"" + o.file + "\" was not sent: the lines above say why"};
    }
    return format("picture of %ux%u from %s%s sent to memory %d of %s at 0x%08x; its frames are not acknowledged\n",
                  o.hor, o.ver, o.file.c_str(),
                  o.file.ends_with(".bmp") ? "" : ", whose bytes are card pixels as they stand,", memory,
                  name_of_link(link).c_str(), o.addr);
}

} // namespace rvk::diag
