// What rvkctl can be told to do: one record of options and one function each. A function talks to the daemon, puts what
// it learns into the outcome as it learns it, and throws a failure when it cannot go on.
#pragma once

#include "rvkctl/outcome.h"
#include "rvkctl/session.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rvk::ctl {

struct read_options : card_options {
    uint16_t len = 0;                      // 1 to frame_data_max
    std::string out_file{};                // empty: a dump on standard output
    std::optional<uint32_t> repeat{};      // so many times, 0: until a signal ends it; none: once, and in full
    std::optional<uint32_t> interval_ms{}; // from the start of one to the start of the next; 1,000 unless given
    bool all = false;                      // a line each time, not only for what is new
};

struct write_options : card_options {
    bool no_ack = false;
    bool verify = false;              // read it back and compare
    std::vector<std::string> words{}; // bytes as they were typed
    std::string file{};               // or where they stand
};

// addr: of a put the buffer's number; of a get where it begins in card memory, in words of 8 bytes.
struct picture_options : card_options {
    std::string file{}; // to write; or the base of the files to make
    picture_size size{};
};

struct update_options : card_options {
    std::string file{};
    uint8_t type = 0;
};

// An update type by its name or number; throws a failure. All names, for the help.
uint8_t update_type_in(const std::string& text);
std::string update_type_names();

void run_hello(const settings& used, outcome& run);
void run_read(const settings& used, const read_options& options, outcome& run);
void run_write(const settings& used, const write_options& options, outcome& run);
void run_picture_put(const settings& used, const picture_options& options, outcome& run);
void run_picture_get(const settings& used, const picture_options& options, outcome& run);
void run_update(const settings& used, const update_options& options, outcome& run);
void run_status(const settings& used, bool watch, outcome& run); // watch: each second, until a signal ends it

// Notes what every command to a card has.
void note_request(const settings& used, const card_options& card, uint8_t code, const char* meaning, outcome& run);

// Reads once and notes what came in `facts`. Result: the data. Throws a failure when the card gave none, or less than
// was asked for (facts then have what came).
std::vector<uint8_t> read_card(session& talk, const read_options& what, nlohmann::ordered_json& facts);

// What a board's daemon that does not answer says of itself, to be put behind an error's text; empty when it says
// nothing that explains it. Throws nothing.
[[nodiscard]] std::string why_unreached(int board);

// What a file job asked of its card once it was over; none when the figures do not come to name that job of this
// requester. Waits up to 5 s until they are written anew. Throws nothing.
struct job_figures {
    uint64_t steps, unanswered;
};
[[nodiscard]] std::optional<job_figures> figures_of_job(const char* job, int board, uint32_t requester,
                                                        uint16_t number);

// The transfers that run, "firmware 1024 of 4096 bytes (25 %)"; empty when none does, or nothing is known.
[[nodiscard]] std::string transfer_text();

} // namespace rvk::ctl
