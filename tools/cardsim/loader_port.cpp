#include "cardsim/loader_port.h"

#include "base/bytes.h"
#include "eth_raw/frame.h"

namespace rvk {
namespace {

constexpr size_t command_bytes = 7; // address, bursts, 1

bool is_of_loader(const request_fields& request) { return request.model == 0 && request.slot == 0; }

} // namespace

mistake loader_port::data(size_t offset, std::span<const uint8_t> frame)
{
    const bool abandons = offset == 0 && !piece.empty(); // the command of the piece before never came
    if (abandons) { piece.clear(); }
    if (offset != piece.size()) { return mistake::loader_data_order; }
    if (piece.size() % frame_data_max != 0) { return mistake::loader_data_order; } // behind a frame that was not full
    if (piece.size() + frame.size() > loader_piece_max) { return mistake::loader_data_excess; }
    piece.insert(piece.end(), frame.begin(), frame.end());
    return abandons ? mistake::loader_piece_abandoned : mistake::none;
}

mistake loader_port::command(std::span<const uint8_t> block, loader_memory& memory)
{
    if (block.size() != command_bytes) { return mistake::loader_command_length; }
    if (piece.empty()) { return mistake::loader_command_order; }
    const size_t bursts = (piece.size() + loader_burst - 1) / loader_burst;
    const bool fits = load_le16(&block[4]) == bursts && block[6] == 1;
    if (fits) {
        const uint64_t from = uint64_t{load_le32(block.data())} * loader_word;
        memory.pages.write(from, piece);
        memory.written.note(from, from + piece.size());
    }
    piece.clear();
    return fits ? mistake::none : mistake::loader_command_value;
}

std::optional<size_t> loader_data_at(const request_fields& request)
{
    if (!is_of_loader(request)) { return std::nullopt; }
    for (size_t i = 0; i < loader_memories.size(); ++i) {
        if (request.addr - loader_memories[i].data < loader_piece_max) { return i; }
    }
    return std::nullopt;
}

std::optional<size_t> loader_command_at(const request_fields& request)
{
    if (!is_of_loader(request)) { return std::nullopt; }
    for (size_t i = 0; i < loader_memories.size(); ++i) {
        if (request.addr == loader_memories[i].command) { return i; }
    }
    return std::nullopt;
}

} // namespace rvk
