#include "cardsim/transfer.h"

#include "base/bytes.h"

#include <algorithm>

namespace rvk {
namespace {

std::vector<uint8_t> le32(size_t value)
{
    std::vector<uint8_t> bytes(4);
    store_le32(bytes.data(), static_cast<uint32_t>(value));
    return bytes;
}

} // namespace

firmware_transfer transfer_of(std::span<const uint8_t> image, uint16_t model, uint8_t slot)
{
    std::vector<uint8_t> file(256);
    uint32_t sum = 0x5555;
    for (const uint8_t b : image) { sum += b; }
    store_le32(&file[0], static_cast<uint32_t>(image.size()));
    store_le16(&file[130], static_cast<uint16_t>(sum));
    file.insert(file.end(), image.begin(), image.end());

    firmware_transfer t;
    const auto high = static_cast<uint8_t>(model >> 8), low = static_cast<uint8_t>(model);
    t.registers = {le32(file.size()), le32(0), le32(1), le32(file.size()), {0}, {high, low}, {0, 0, slot}};
    for (size_t at = 0; at < file.size(); at += 1024) {
        const auto piece = std::span(file).subspan(at, std::min<size_t>(1024, file.size() - at));
        t.pieces.emplace_back(piece.begin(), piece.end());
    }
    return t;
}

} // namespace rvk
