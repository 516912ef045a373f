// How many card links there are; every table with an entry per link has this size.
#pragma once

namespace rvk {

inline constexpr int MAX_ETH = 3; // board: eth0 to eth2

constexpr bool is_link(int index) { return index >= 0 && index < MAX_ETH; }

} // namespace rvk
