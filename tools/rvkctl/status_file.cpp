// The status file: found, read, and how old it is.
#include "rvkctl/status_view.h"

#include "base/board.h"
#include "base/clock.h"
#include "base/fd.h"
#include "command/values.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <vector>

namespace rvk::ctl {
namespace {

constexpr off_t file_bytes_max = 1 << 20; // ours: far above what the daemon writes

[[noreturn]] void not_there(const std::string& path, int error)
{
    throw failure{error == EACCES ? problem::no_permission : problem::no_status,
                  "no status in " + path + " (" + strerror(error) +
                      "): does rvkd run, and does RVK_STATUS_DIR name the folder that it has?"};
}

std::string text_of(const std::string& path)
{
    const unique_fd file = open_regular(path.c_str(), O_RDONLY);
    if (!file) { not_there(path, errno); }
    std::vector<uint8_t> bytes(static_cast<size_t>(std::clamp<off_t>(size_of(file), 0, file_bytes_max)));
    const size_t count = read_full(file, bytes);
    return {bytes.begin(), bytes.begin() + static_cast<ptrdiff_t>(count)};
}

} // namespace

std::string status_path() { return std::string(status_folder()) + "/" + status_json_name; }

status_view read_status()
{
    const std::string path = status_path();
    auto figures = nlohmann::ordered_json::parse(text_of(path), nullptr, false);
    if (!figures.is_object() || !figures.value("boot_ms", nlohmann::ordered_json()).is_number_unsigned() ||
        !figures.value("links", nlohmann::ordered_json()).is_array()) {
        throw failure{problem::no_status, path + " is not a status of this program's version: which rvkd wrote it?"};
    }
    const double age_ms = static_cast<double>(boot_ms()) - figures.at("boot_ms").get<double>();
    return {std::move(figures), age_ms / 1e3};
}

failure judge_age(const status_view& now)
{
    if (now.age_s < 0) {
        return {problem::old_status, "the figures in " + status_path() +
                                         " are from before the machine's last start: rvkd has not run since"};
    }
    if (now.age_s <= status_age_max_s) { return {problem::none, {}}; }
    return {problem::old_status,
            format("the figures in %s are %.1f s old, and rvkd writes them each second: has it ended, or does a "
                   "real-time process keep it from the processors?",
                   status_path().c_str(), now.age_s)};
}

std::string kept_log()
{
    constexpr char newest[] = "/var/log/rvk_end_1.txt"; // as the unit's keep-log names it
    return access(newest, F_OK) == 0 ? newest : "";
}

std::string why_unreached(int board)
{
    try {
        const status_view now = read_status();
        if (judge_age(now).what != problem::none || now.figures.at("board") != board ||
            now.figures.at("endpoint") != 0) {
            return {};
        }
        return format("; rvkd runs (process %d), but has no endpoint in its folder: its log says why, restart it",
                      now.figures.at("pid").get<int>());
    } catch (const failure&) {
    } catch (const nlohmann::json::exception&) {
    }
    return {};
}

} // namespace rvk::ctl
