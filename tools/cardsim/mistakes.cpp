#include "cardsim/mistakes.h"

#include <array>

namespace rvk {
namespace {

constexpr std::array<const char*, mistake_count> names{
    "none",
    "picture_control_length",
    "picture_command",
    "picture_buffer_number",
    "picture_too_large",
    "picture_not_ended",
    "picture_start_order",
    "picture_end_order",
    "picture_data_order",
    "picture_frame_size",
    "picture_data_excess",
    "picture_data_missing",
    "read_command_length",
    "read_command_value",
    "read_start_value",
    "read_start_order",
    "read_status_order",
    "read_status_skipped",
    "read_window_order",
    "read_window_size",
    "firmware_register_length",
    "firmware_register_order",
    "firmware_register_value",
    "firmware_piece_order",
    "firmware_piece_size",
    "firmware_head_size",
    "firmware_head_checksum",
    "firmware_head_not_zero",
    "loader_data_order",
    "loader_data_excess",
    "loader_piece_abandoned",
    "loader_command_length",
    "loader_command_order",
    "loader_command_value",
    "bus_packet_length",
    "bus_packet_type",
    "bus_reserved_byte",
    "bus_data_length",
    "bus_checksum",
    "bus_area_not_zero",
};
static_assert(names.back() != nullptr, "a name for each");

} // namespace

const char* name_of(mistake m) { return names[static_cast<size_t>(m)]; }

} // namespace rvk
