// The daemon's figures as its status file has them, and as a table for a person. Needs no daemon that answers, and no
// privilege: the file is readable by everybody.
#pragma once

#include "rvkctl/outcome.h"

#include <nlohmann/json.hpp>
#include <optional>
#include <string>

namespace rvk::ctl {

struct status_view {
    nlohmann::ordered_json figures;
    double age_s = 0; // by the clock that both use, which nobody sets; negative: before the machine's last start
};

// Reads the file, /run/rvkd/status.json unless RVK_STATUS_DIR names another folder. Throws a failure when it is not
// there or not the daemon's.
[[nodiscard]] status_view read_status();

// What a board's daemon that does not answer says of itself, to be put behind an error's text; empty when it says
// nothing that explains it. Throws nothing.
[[nodiscard]] std::string why_unreached(int board);

// What a file job asked of its card once it was over; none when the figures do not come to name that job of this
// requester. Waits until they are written anew. Throws nothing.
struct job_figures {
    uint64_t steps, unanswered;
};
[[nodiscard]] std::optional<job_figures> figures_of_job(const char* job, int board, uint32_t requester,
                                                        uint16_t number);

// The transfers that run, "firmware 1024 of 4096 bytes (25 %)"; empty when none does, or nothing is known.
[[nodiscard]] std::string transfer_text();
[[nodiscard]] std::string transfer_text(const nlohmann::ordered_json& figures);

// The table. before: an earlier view of the same daemon, to show rates beside what only grows.
[[nodiscard]] std::string status_table(const status_view& now, const std::optional<status_view>& before);

} // namespace rvk::ctl
