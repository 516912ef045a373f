// The daemon's threads in the test's process, on endpoints of its own, with requesters beside them: commands go in as
// messages and frames come out at the cards. The threads start with the first test of a program and run to its end.
#pragma once

#include "link/bench_link.h"
#include "requester/requester.h"

#include <cstdint>
#include <span>
#include <vector>

namespace rvk {

struct command_fields {
    uint8_t code = 0, slot = 0;
    uint32_t addr = 0;
    uint16_t len = 0;
};

class DaemonTest : public LinkTest {
protected:
    void SetUp() override;
};

// Opens a requester of this board, any free identity.
void open_requester(requester& client);

// Sends a command to the daemon, waiting for room in its queue for up to 10 s. `payload`: a write's `len` bytes.
[[nodiscard]] bool send_command(requester& client, const command_fields& fields, std::span<const uint8_t> payload = {});

} // namespace rvk
