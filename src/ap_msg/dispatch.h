// The command interpreter: carries out what other processes ask for, and answers them. It runs on the IPC receive
// thread only, one command after the other, and keeps nothing between commands.
#pragma once

#include <cstdint>
#include <span>

namespace rvk {

// Carries out one data message.
// message    the whole message as received, at least 40 bytes; data_head: its bytes from 24 on
// Result     0, or -1 when no reply buffer could be had for a read
// It waits for cards (up to three timeouts of 6 ticks a piece), and for a running file job when the command is another.
int32_t ApipcDataProc(std::span<const uint8_t> message, std::span<const uint8_t> data_head);

// Sends the greeting.
void apipc_first(uint32_t requester);

// Sends a read request of 10 bytes at 0x10000 to module 0x3A of this board. Nothing calls it.
void apipc_test();

} // namespace rvk
