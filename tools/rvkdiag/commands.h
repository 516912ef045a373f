// What rvkdiag can be told to do: one record of options and one function each. A function checks what it was given
// against the machine, opens the link it needs, works, and throws a failure when it is not done. Its result is the
// answer, for standard output; reads print their dump themselves. One command per process, on its main thread.
#pragma once

#include "command/failure.h"
#include "command/values.h"
#include "rvkdiag/link.h"

namespace rvk::diag {

struct fpga_options;
struct fpga_kind {
    const char* name;
    bool reads;
    std::optional<numbers> used; // none: it needs no answer
    std::string (*run)(const fpga_options&);
};

struct fpga_options {
    const fpga_kind* kind = nullptr;
    int link = 0;
    uint16_t model = 0;
    uint8_t slot = 0;
    uint32_t addr = 0;
    std::string last{};           // as typed: what follows the address
    uint16_t len = 0;             // of a read, 1 to frame_data_max
    std::vector<uint8_t> bytes{}; // of a write, at least one
};

struct picture_options {
    uint32_t addr = 0; // card memory, in units of 8 bytes
    picture_size size{};
    std::string file{}, ts_sel{}, fpga_sel{};
};

struct bus_options {
    int link = 0;
    uint32_t addr = 0;
    uint32_t len = 0; // of a read, 1 to bus_block_max
    std::string file{};
};

const fpga_kind& fpga_kind_in(const std::string& text); // throws a failure of wrong usage
std::string run_fpga(const fpga_options& options);
std::string run_picture(const picture_options& options);
[[noreturn]] void run_lvds(); // ends with the machine, or by a signal
std::string run_bus_read(const bus_options& options);
std::string run_bus_write(const bus_options& options);

} // namespace rvk::diag
