// A test picture: eight colour bars, its number drawn large in the middle, a frame of one white pixel around all. Which
// picture it is, whether it stands upright, has its colours right and is whole shows at a glance.
#pragma once

#include <cstdint>
#include <vector>

namespace rvk {

struct colour {
    uint8_t red, green, blue;
    bool operator==(const colour&) const = default;
};

// Left to right, an eighth of the width each.
inline constexpr colour bars[8]{{255, 255, 255}, {255, 255, 0}, {0, 255, 255}, {0, 255, 0},
                                {255, 0, 255},   {255, 0, 0},   {0, 0, 255},   {0, 0, 0}};
inline constexpr colour paper{32, 32, 32}, ink{255, 255, 255}; // of the number's field

// Result: hor x ver pixels, top line first, as card memory takes them: 0x55 (not shown), red, green, blue.
[[nodiscard]] std::vector<uint8_t> test_card(uint32_t number, uint32_t hor, uint32_t ver);

} // namespace rvk
