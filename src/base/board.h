// base: what the daemon, the tools and the tests all use; it includes nothing else of src. Any thread may call any of
// it, unless its comment says otherwise. The lock order is in mutex.h.
//
// The words that begin the comment of a constant say where its value comes from:
//   card, frame, packet   the cards, and the frames and packets that they take and give
//   message       the messages between the board's processes
//   board, bmp    the board's hardware; the picture file format
//   ours          chosen by us: may be changed without anybody else noticing
//
// This header: the card links, and where the daemon's status files are.
#pragma once

#include <cstdlib>

namespace rvk {

inline constexpr int MAX_ETH = 3; // board: eth0 to eth2

constexpr bool is_link(int index) { return index >= 0 && index < MAX_ETH; }

// The daemon writes them, its client reads them.
inline constexpr char status_json_name[] = "status.json", status_prometheus_name[] = "status.prom";

inline const char* status_folder()
{
    const char* named = getenv("RVK_STATUS_DIR");
    return named != nullptr && *named != '\0' ? named : "/run/rvkd";
}

} // namespace rvk
