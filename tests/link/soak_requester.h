// One requester of the soak: sends reads, waited and unwaited acknowledged writes, each to an address of its own, and
// books every message that comes back. A command longer than a frame is booked piece by piece.
#pragma once

#include "link/bench_daemon.h"

#include <cstdint>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace rvk {

enum class soak_kind { read, waited_write, unwaited_write };

struct soak_piece {
    soak_kind kind = soak_kind::read;
    uint32_t addr = 0;
    uint16_t len = 0;
    bool decides = true;     // an answer to its command says how it fared: only the last piece of a waited write
    int answers = 0;         // replies, or reports of a failure
    int32_t result = 0;      // of the last of them
    bool data_right = false; // reads
};

// A run ends at the time or with the number of commands, whichever comes first.
struct soak_limits {
    uint64_t end_us = UINT64_MAX;
    size_t commands = SIZE_MAX;
};

inline constexpr uint8_t soak_slot_of(soak_kind kind) { return kind == soak_kind::waited_write ? 2 : 1; }

// Where the reads of all requesters lie, all of it pattern().
inline constexpr uint32_t soak_read_addr = 0x80000000;
inline constexpr size_t soak_read_bytes = 8 * 0x40000 + 1400;

class soak_requester {
public:
    soak_requester(uint32_t number, uint64_t seed); // numbers 0 to 7

    void open() { open_requester(endpoint); }
    void run(const soak_limits& limits); // the caller's thread's work; ends behind an answered read
    void drain();                        // books what still lies there

    [[nodiscard]] const std::vector<soak_piece>& pieces() const { return booked; }
    [[nodiscard]] size_t commands() const { return sent; }
    [[nodiscard]] const std::vector<std::string>& surprises() const { return wrong; } // messages that answer nothing

private:
    void start(soak_kind kind, size_t len);
    void await_answer();
    void book(const std::vector<uint8_t>& answer);
    uint32_t take_addr(soak_kind kind, size_t len);

    requester endpoint;
    std::mt19937_64 dice;
    size_t sent = 0;
    uint32_t next_addr[3];              // by kind
    std::vector<soak_piece> booked;     // in the order of sending
    std::map<uint32_t, size_t> by_addr; // the address that an answer names
    std::vector<std::string> wrong;
};

} // namespace rvk
