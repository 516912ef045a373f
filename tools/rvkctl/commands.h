// What rvkctl can be told to do: one record of options and one function each. A function talks to the daemon, puts what
// it learns into the outcome as it learns it, and throws a failure when it cannot go on.
#pragma once

#include "rvkctl/outcome.h"
#include "rvkctl/session.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rvk::ctl {

// Of a read that is repeated.
struct repetition {
    uint64_t times = 0;                       // 0: until a signal ends it
    std::chrono::milliseconds interval{1000}; // from the start of one to the start of the next
    bool all = false;                         // a line each time, not only for what is new
};

struct read_options {
    uint8_t slot = 0;
    uint16_t model = 0;
    uint32_t addr = 0;
    uint16_t len = 0;       // 1 to frame_data_max
    std::string out_file{}; // empty: a dump on standard output
    std::optional<repetition> repeat{};
};

struct write_options {
    uint8_t slot = 0;
    uint16_t model = 0;
    uint32_t addr = 0;
    bool no_ack = false;
    bool verify = false; // read it back and compare
    std::vector<uint8_t> bytes;
};

struct picture_options {
    std::string file; // to write; or the base of the files to make
    uint32_t hor = 0, ver = 0;
    uint32_t where = 0; // buffer number of a put; card memory address of a get, in words of 8 bytes
    uint8_t slot = 1;
    uint16_t model = 0;
    std::optional<uint32_t> verify_at{}; // of a put: where the buffer begins in card memory, to read it back from there
};

struct update_options {
    std::string file;
    uint8_t type = 0;
    uint8_t slot = 0;
    uint16_t model = 0;
};

struct status_options {
    bool watch = false; // each second, until a signal ends it
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
void run_status(const settings& used, const status_options& options, outcome& run);

} // namespace rvk::ctl
