// One input of the file jobs' target: a message with a file command, what stands on disk, and what has to come of it,
// by the rules of the commands and not by the daemon's code.
//
// Input: the fields of input_at, then the payload, then `file_bytes` bytes that are the file, or the card's memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace input_at {
inline constexpr size_t flags = 0, fault = 1, refuse_every = 2, code = 3, file_bytes = 4; // 1 1 1 1 2
inline constexpr size_t slot = 6, model = 7, addr = 9, len = 13, payload = 15;            // 1 2 4 2
} // namespace input_at

// Flags. Without len_given the message says the length that its payload has.
inline constexpr uint8_t len_given = 1, no_file = 2, a_folder = 4, a_fifo = 8, has_new_image = 16;
inline constexpr uint8_t fills_disk = 32,
                         generation_shift = 6; // the first after as many writes as addr's low byte says

inline constexpr uint32_t job_requester = 0x010A7F01;
inline constexpr char new_image_path[] = "/opt/upgddir/update_sources_card/fpga_bin/InputCardTop_b1.bin";

struct job_input {
    std::vector<uint8_t> message;
    uint8_t code, slot, flags, fault, refuse_every, generation;
    uint16_t model;
    uint32_t addr;
    std::vector<uint8_t> payload;    // what the message holds of the `len` bytes it says
    std::span<const uint8_t> file;   // the rest of the input
    bool handed_over;                // to the thread of the file jobs: not cut, not too long
    uint32_t hor, ver, type;         // 0 where the payload is too short
    std::optional<std::string> path; // none: not terminated, or too long for its command
    [[nodiscard]] bool is_faultless() const { return fault == 0 && refuse_every == 0 && (flags & fills_disk) == 0; }
    [[nodiscard]] bool is_picture_to_do() const; // a picture job that is not refused
};

// Result: none for an input that is too short. Large pictures are made small ones: their size decides nothing but time.
[[nodiscard]] std::optional<job_input> job_input_of(std::span<const uint8_t> data);

// Puts what the flags say at the path of the job.
void place_files(const job_input& job);
