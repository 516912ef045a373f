// A card link of this process's own, opened as the daemon opens its link 0. What would make every operation fail
// without a word is looked at first: a daemon that reads the same answers, an interface that is missing or down, an MTU
// that is too small. Main thread; a link stays open, and its threads run, to the end of the process.
#pragma once

#include <cstddef>
#include <pthread.h>
#include <string>

namespace rvk::diag {

// Throw a failure when the link cannot be had.
// longest_frame  bytes of the longest frame that will travel, its Ethernet header included
void open_without_threads(int link, size_t longest_frame); // to send, and to receive by oneself
void open_with_threads(int link, size_t longest_frame);    // for exchanges; their reports are kept

[[nodiscard]] std::string name_of_link(int link); // "link 1 (eth1)"

} // namespace rvk::diag
