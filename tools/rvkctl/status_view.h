// The daemon's figures as its status file has them, and as a table for a person. Needs no daemon that answers, and no
// privilege: the file is readable by everybody.
#pragma once

#include "rvkctl/outcome.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace rvk::ctl {

inline constexpr double status_age_max_s = 3; // ours: the daemon writes once a second

struct status_view {
    nlohmann::ordered_json figures;
    double age_s = 0; // by the clock that both use, which nobody sets
};

// The file, /run/rvkd/status.json unless RVK_STATUS_DIR names another folder.
[[nodiscard]] std::string status_path();

// Reads it. Throws a failure when it is not there or not the daemon's.
[[nodiscard]] status_view read_status();

// Why figures of that age say nothing of now; problem::none when they do.
[[nodiscard]] failure judge_age(const status_view& now);

// What a board's daemon that does not answer says of itself, to be put behind an error's text; empty when it says
// nothing that explains it. Throws nothing.
[[nodiscard]] std::string why_unreached(int board);

// The log of the daemon's last end, as its unit keeps it; empty when there is none.
[[nodiscard]] std::string kept_log();

// The table. before: an earlier view of the same daemon, to show rates beside what only grows.
[[nodiscard]] std::string status_table(const status_view& now, const std::optional<status_view>& before);

} // namespace rvk::ctl
