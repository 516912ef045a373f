// Whether a card holds the picture that was put: read back, and compared with the file it came from.
//
// A read-back takes 1,400 of each 1,408 bytes of card memory. A card that keeps a picture's lines one behind the other
// loses the other 8 in it; one that lays them out for this, as the simulated ones do, gives the whole picture. Which of
// them answers nobody says, so both are tried, and the one that agrees for longer is taken.
#include "rvkctl/picture.h"

#include "command/values.h"
#include "eth_raw/frame.h"
#include "rvkctl/verify.h"

#include <algorithm>
#include <fstream>
#include <optional>
#include <vector>

namespace rvk::ctl {
namespace {

constexpr size_t line_unit = 64;              // card: lines begin at multiples of it, and a read-back's steps too
constexpr size_t step_bytes = frame_data_max; // daemon
constexpr size_t step_room = (step_bytes + line_unit - 1) / line_unit * line_unit; // 1,408

enum class layout { spread, dense }; // as above: the whole picture, or without 8 of each 1,408 bytes

struct shape {
    size_t line, stride, lines;

    [[nodiscard]] size_t stored() const { return stride * lines; }
};

struct comparison {
    size_t compared = 0, differing = 0;
    std::optional<difference> first;
    size_t first_in_back = 0; // where that byte is in what was read back
};

std::vector<uint8_t> bytes_from(const std::string& path, uint64_t at, size_t bytes)
{
    std::vector<uint8_t> out(bytes);
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(at));
    file.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(bytes));
    if (file) { return out; }
    throw failure{problem::wrong_usage, "\"" + path + "\" cannot be read whole any more"};
}

// Calls visit(offset in the picture, offset in what was read back, count) for each run of bytes that both have in one
// piece. Offsets among stored lines, padding included, are those of card memory on one side, of the daemon's on the
// other.
template <typename Visit>
void for_runs(const shape& s, layout how, Visit visit)
{
    for (size_t read = 0; read < s.stored();) {
        const size_t in_step = read % step_bytes;
        const size_t stored = how == layout::spread ? read : read / step_bytes * step_room + in_step;
        if (stored >= s.stored()) { return; } // behind the picture
        const size_t read_in_line = read % s.stride, stored_in_line = stored % s.stride;
        const size_t n = std::min({step_bytes - in_step, s.stride - read_in_line, s.stride - stored_in_line});
        const size_t padding_at = std::max(read_in_line, stored_in_line);
        if (padding_at < s.line) {
            visit(stored / s.stride * s.line + stored_in_line, read / s.stride * s.line + read_in_line,
                  std::min(n, s.line - padding_at));
        }
        read += n;
    }
}

comparison compare(const shape& s, layout how, const std::vector<uint8_t>& picture, const std::vector<uint8_t>& back)
{
    comparison out;
    for_runs(s, how, [&](size_t in_picture, size_t in_back, size_t n) {
        out.compared += n;
        for (size_t i = 0; i < n; ++i) {
            const uint8_t wanted = picture[in_picture + i], got = back[in_back + i];
            if (wanted == got) { continue; }
            if (out.differing++ > 0) { continue; }
            out.first = {in_picture + i, wanted, got};
            out.first_in_back = in_back + i;
        }
    });
    return out;
}

comparison better(const comparison& a, const comparison& b)
{
    if (!a.first || !b.first) { return a.first ? b : a; }
    return b.first->offset > a.first->offset ? b : a;
}

bool is_zero(std::span<const uint8_t> bytes)
{
    return std::all_of(bytes.begin(), bytes.end(), [](uint8_t byte) { return byte == 0; });
}

// Whether the step that brought a byte brought nothing but zeros, as one does that was not answered.
bool is_silent_step(const shape& s, size_t in_back, const std::vector<uint8_t>& back)
{
    const size_t read = in_back / s.line * s.stride + in_back % s.line;
    const size_t begin = read / step_bytes * step_bytes, end = std::min(begin + step_bytes, s.stored());
    const auto unpadded = [&](size_t at) { return at / s.stride * s.line + std::min(at % s.stride, s.line); };
    return is_zero(std::span(back).subspan(unpadded(begin), unpadded(end) - unpadded(begin)));
}

[[noreturn]] void refuse(const picture_options& options, const std::string& path, const comparison& found,
                         bool all_zero, outcome& run)
{
    const uint64_t pixel = found.first->offset / 4;
    run.facts["compared_bytes"] = found.compared;
    run.facts["differing_bytes"] = found.differing;
    try {
        refuse_difference(*found.first,
                          format("picture in buffer %u, read back from 0x%x, differs from \"%s\" in %zu of %zu bytes",
                                 options.where, *options.verify_at, path.c_str(), found.differing, found.compared),
                          format("line %llu, pixel %llu", static_cast<unsigned long long>(pixel / options.hor),
                                 static_cast<unsigned long long>(pixel % options.hor)),
                          run);
    } catch (failure& failed) {
        if (all_zero) {
            failed.text += "; all of it is zero: is --addr right, and does the card answer? see rvkd's log";
        }
        throw;
    }
}

} // namespace

std::string verify_picture(session& talk, const picture_options& options, const std::string& path,
                           const scratch_folder& scratch, outcome& run)
{
    picture_options back_options = options;
    back_options.where = *options.verify_at;
    const size_t line = size_t{options.hor} * 4;
    const auto all = static_cast<size_t>(pixel_bytes_of(options));
    const shape s{line, (line + line_unit - 1) / line_unit * line_unit, options.ver};
    talk.doing = "reading back";
    comparison found;
    bool all_zero = false, again = false;
    do {
        std::vector<uint8_t> picture, back;
        try {
            const picture_files files = files_of(scratch.file());
            read_back(talk, back_options, files);
            picture = bytes_from(path, pixels_at(path), all);
            back = bytes_from(files.raw, 0, all);
        } catch (failure& failed) {
            mark_not_read_back(failed, run);
            if (failed.what == problem::refused) { failed.text += "; TMPDIR must be a folder that rvkd can reach"; }
            throw;
        }
        found = better(compare(s, layout::spread, picture, back), compare(s, layout::dense, picture, back));
        all_zero = is_zero(back);
        // A card may still be busy with the picture when the first steps ask, and their answers then come too late.
        again = !again && found.first && !all_zero && is_silent_step(s, found.first_in_back, back);
    } while (again);
    if (found.first) { refuse(options, path, found, all_zero, run); }
    note_same(found.compared, run);
    if (found.compared == all) { return "read back the same\n"; }
    return format("read back the same: %zu of %zu bytes, the others are in no read-back\n", found.compared, all);
}

} // namespace rvk::ctl
