#include "cardsim/card.h"

namespace rvk {
namespace {

constexpr uint8_t read_done = 1; // ours: what the read-back's status register says

// Only those of model 0, slot 0 are the picture loader's; elsewhere its addresses are plain memory.
bool is_of_loader(const request_fields& request) { return request.model == 0 && request.slot == 0; }

} // namespace

violation sim_card::write(const request_fields& request)
{
    switch (request.addr) {
    case demo_data: return demo_port.data(request.data, buffers, pictures);
    case other_data: return other_port.data(request.data, buffers, pictures);
    case firmware_data: return firmware.piece(request.data);
    default: break;
    }
    for (size_t i = 0; is_of_loader(request) && i < loaders.size(); ++i) {
        const uint32_t offset = request.addr - loader_data[i];
        if (offset < loader_piece_max) { return loaders[i].data(offset, request.data); }
    }
    const violation wrong = write_part(request);
    if (!is_refused(wrong)) { registers.write(request.addr, request.data); }
    return wrong;
}

// What a write sets off beside being kept as the register's value.
violation sim_card::write_part(const request_fields& request)
{
    switch (request.addr) {
    case demo_control: return demo_port.control(request.data, buffers);
    case other_control: return other_port.control(request.data, buffers);
    case read_command_register: return read_back.command(request.data);
    case read_start_register: return read_back.start(request.data);
    default: break;
    }
    for (size_t i = 0; is_of_loader(request) && i < loaders.size(); ++i) {
        if (request.addr == loader_commands[i]) { return loaders[i].command(request.data); }
    }
    for (size_t i = 0; i < firmware_registers.size(); ++i) {
        if (request.addr == firmware_registers[i].addr) {
            return firmware.write_register(i, request.data, request.slot);
        }
    }
    return violation::none;
}

violation sim_card::read(const request_fields& request, std::span<uint8_t> out)
{
    if (request.addr == read_window_register) { return read_back.window(pictures, out.first(request.len)); }
    if (request.addr == read_status_register) {
        const violation wrong = read_back.status();
        if (!is_refused(wrong)) { out[0] = read_done; }
        return wrong;
    }
    registers.read(request.addr, out);
    return violation::none;
}

std::optional<uint8_t> sim_card::demo_picture_ended(const request_fields& request) const
{
    const bool ends = request.addr == demo_control && request.data.size() == 1 && request.data[0] == 0;
    return ends ? std::optional(demo_port.buffer()) : std::nullopt;
}

} // namespace rvk
