// The cards' registers that mean something to the daemon or the tools; every other address is plain memory.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace rvk {

// The two ports into picture memory, each a control register and a data register that takes the pixels as a stream.
inline constexpr uint32_t demo_control = 0x7080, demo_data = 0x60000;   // buffers 16 to 25
inline constexpr uint32_t other_control = 0x7040, other_data = 0x40000; // any other buffer

// The picture loader's two memories: a piece of at most 15,360 bytes to the data register, then its command.
inline constexpr std::array<uint32_t, 2> loader_data{0xB0000, 0xF0000}, loader_commands{0xA0001, 0xE0001};
inline constexpr size_t loader_piece_max = 15'360;

inline constexpr uint32_t read_command_register = 0xA0008, read_start_register = 0xA00FF;
inline constexpr uint32_t read_status_register = 0xA0FFD, read_window_register = 0xB0000;

// The file information of a firmware transfer, in its order; the pieces of the file all go to one address.
struct firmware_register {
    const char* name;
    uint32_t addr;
    size_t bytes;
};
inline constexpr std::array<firmware_register, 7> firmware_registers{{
    {"total_files_size", 0x11F00000, 4},
    {"files_recv_len", 0x11F00004, 4},
    {"total_files_count", 0x11F00008, 4},
    {"current_file_size", 0x11F0000C, 4},
    {"v", 0x11F00010, 1},
    {"device_type", 0x18200000, 2},
    {"card_modelid", 0x18200002, 3},
}};
inline constexpr uint32_t firmware_data = 0x18000000;

inline constexpr uint32_t generation_register = 0x10000015; // of the input card: model 0, slot 2
inline constexpr uint8_t generation_slot = 2;
inline constexpr uint32_t readiness_register = 0x00F00009; // of the video-processing FPGA: model 0, slot 1
inline constexpr uint8_t not_ready = 0xFF;
inline constexpr uint8_t playback_slot = 1;
namespace playback { // registers of the same FPGA
inline constexpr uint32_t timing_a = 0x22002, timing_b = 0x2200A;
inline constexpr uint32_t play = 0xA0, timing_load = 0xA1, interval = 0xA2, number = 0xA6, reset = 0xA7;
} // namespace playback

inline constexpr uint32_t lvds_register = 0x30082; // status block of the LVDS link: model 0, slot 1
inline constexpr uint8_t lvds_slot = 1;
inline constexpr std::array<uint8_t, 5> lvds_good{0x01, 0x80, 0x07, 0x38, 0x04};
inline constexpr std::array<uint8_t, 5> lvds_wrong{0x00, 0x80, 0x07, 0x38, 0x04};

} // namespace rvk
