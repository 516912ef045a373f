// A card link of this process's own, opened as the daemon opens its link 0. What would make every operation fail
// without a word is looked at first: a daemon that reads the same answers, an interface that is missing or down, an MTU
// that is too small. Main thread; a link stays open, and its threads run, to the end of the process.
//
// One rvkdiag at a time works on a link, by a lock that ends with its process. Its requests' numbers begin at 0, or
// behind those of the last run of this kind that was left without an answer, which may still come; the lock's file
// keeps them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace rvk::diag {

enum class numbers { write_ack, write_ack_wait, read_ack, read_wait };

// Waits for the lock up to 5 s. Throws a failure that names its holder.
// kind, frames  whose numbers will be used, and how many of them at most
void take_link(int link, std::optional<numbers> kind = {}, size_t frames = 0);

// Every request had its answer: the next run's numbers begin at 0.
void all_answered();

// Throws a failure when the link cannot be had.
// longest_frame  bytes of the longest frame that will travel, its Ethernet header included
// threads        for exchanges, whose reports are kept; without, to send, and to receive by oneself
void open_link(int link, size_t longest_frame, bool threads);

// What the transport reports of an asynchronous request.
struct report {
    uint32_t addr = 0;           // of the request
    int32_t result = 0;          // 0, or -1: given up
    bool answered = false;       // by the card, with data or a refusal; false: the time ran out
    std::vector<uint8_t> data{}; // of a read
};

// Waits until no request is pending any more. Result: what was reported since the last call, oldest first.
[[nodiscard]] std::vector<report> await_reports();

[[nodiscard]] std::string name_of_link(int link); // "link 1 (eth1)"

} // namespace rvk::diag
