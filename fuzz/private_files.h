// The files of whoever runs jobs whose paths name what they like, as those of a fuzz target's input do: whatever path
// the daemon's code names, it gets a file of a folder made for this run, and nothing of the machine is read, written or
// flushed.
//
// The program is linked so that open, access, stat, pwrite and sync end here. A path becomes one name in the folder, so
// that no path leads out of it; what was opened or placed is removed after each input.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

inline constexpr char temporary_image[] = "/home/updatebin.tmp";

enum class placed { nothing, file, folder, fifo };

// Makes the folder, once; it is removed at the end of the process.
void open_private_files();
void clear_private_files();

void place(const std::string& path, placed what, std::span<const uint8_t> bytes);
// From the n-th write on there is no space left, until the files are cleared.
void fill_disk_after(size_t writes);
[[nodiscard]] bool was_disk_full(); // a write has failed for that

void make_huge(const std::string& path); // a file of more bytes than 31 bits count

// Does what the two command lines do that make the temporary file of a transfer. Result: it was one of them.
bool run_on_private_files(const std::string& line);

// Result: what stands at a path, and none where no regular file does.
[[nodiscard]] placed what_is_at(const std::string& path);
[[nodiscard]] std::optional<std::vector<uint8_t>> contents_of(const std::string& path);
