// rvkdiag's log sink: what the transport and the block link say while a command runs, kept for the one line that tells
// why it failed, or shown as it comes.
#pragma once

#include <string>

namespace rvk::diag {

void show_log(); // from now on, on standard error. Before the first thread starts

// What was kept: ": TEXT" of the place that said most, with ", 1000 times" if it did; empty when nothing was said.
[[nodiscard]] std::string said();

} // namespace rvk::diag
