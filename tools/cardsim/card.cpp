#include "cardsim/card.h"
#include "eth_raw/registers.h"

#include <algorithm>

namespace rvk {

std::optional<size_t> firmware_register_at(uint32_t addr)
{
    for (size_t i = 0; i < firmware_registers.size(); ++i) {
        if (firmware_registers[i].addr == addr) { return i; }
    }
    return std::nullopt;
}

mistake sim_card::write(const request_fields& request)
{
    switch (request.addr) {
    case demo_data: return demo_port.data(request.data, buffers, pictures);
    case other_data: return other_port.data(request.data, buffers, pictures);
    case firmware_data: return firmware.piece(request.data);
    default: break;
    }
    if (const auto port = loader_data_at(request)) {
        return loader[*port].data(request.addr - loader_memories[*port].data, request.data);
    }
    const mistake wrong = write_part(request);
    if (!is_refused(wrong)) { registers.write(request.addr, request.data); }
    return wrong;
}

// What a write sets off beside being kept as the register's value.
mistake sim_card::write_part(const request_fields& request)
{
    switch (request.addr) {
    case demo_control: return demo_port.control(request.data, buffers);
    case other_control: return other_port.control(request.data, buffers);
    case read_command_register: return read_back.command(request.data);
    case read_start_register: return read_back.start(request.data);
    default: break;
    }
    if (const auto port = loader_command_at(request)) { return loader[*port].command(request.data, loaded[*port]); }
    const auto index = firmware_register_at(request.addr);
    return index ? firmware.write_register(*index, request.data, request.slot) : mistake::none;
}

mistake sim_card::read(const request_fields& request, std::span<uint8_t> out)
{
    switch (request.addr) {
    case read_window_register: return read_back.window(pictures, out.first(request.len));
    case read_status_register: {
        const mistake wrong = read_back.status();
        if (!is_refused(wrong)) { out[0] = read_done; }
        return wrong;
    }
    default: registers.read(request.addr, out); return mistake::none;
    }
}

std::optional<uint8_t> sim_card::demo_picture_ended(const request_fields& request) const
{
    const bool ends = request.addr == demo_control && request.data.size() == 1 && request.data[0] == 0;
    return ends ? std::optional(demo_port.buffer()) : std::nullopt;
}

} // namespace rvk
