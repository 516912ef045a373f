// The real daemon between its client and simulated cards: what every test of the file services stands on, with a folder
// for the files that they are about.
//
// The cards run in the test's process, above all ordinary threads, so that nothing but the daemon decides when a frame
// is answered. What no controller should send fails the test at its end, and so does a frame that was lost on the way.
#pragma once

#include "cardsim/link.h"
#include "system/daemon.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace rvk {

// Bytes that tell where they belong: never 0, and no two seeds alike.
[[nodiscard]] std::vector<uint8_t> content(uint32_t seed, size_t size);

[[nodiscard]] std::vector<uint8_t> file_bytes(const std::string& path);
void write_file(const std::string& path, std::span<const uint8_t> bytes);

// The payload of a picture job: size and path, its end included.
[[nodiscard]] std::vector<uint8_t> picture_payload(uint32_t hor, uint32_t ver, const std::string& path);

inline constexpr milliseconds demo_patience{120'000}; // 300 MB through a sanitizer, on a machine that does other work

// Waits until the daemon has written the last of its demo pictures.
[[nodiscard]] bool demo_is_over(const card_farm& farm);

class FilesTest : public testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    // Starts a daemon that answers when it returns; one that runs is killed before.
    void start_daemon(const child_setup& setup = daemon_setup(), const std::vector<std::string>& arguments = {});
    void kill_daemon();

    // Writes a file into the test's folder. Result: its path.
    [[nodiscard]] static std::string file(const std::string& name, std::span<const uint8_t> bytes);
    [[nodiscard]] static std::string in_folder(const std::string& name);

    // Runs the client. Result: its exit status.
    [[nodiscard]] static int rvkctl(const std::vector<std::string>& arguments);
    [[nodiscard]] static std::unique_ptr<child> start_rvkctl(std::vector<std::string> arguments);

    // What a picture buffer was set up as last.
    [[nodiscard]] std::optional<picture_record> picture_of(card_id card, uint8_t buffer) const;

    card_farm farm;
    card_link cards{farm};
    std::unique_ptr<daemon_process> d;
    bool cards_may_refuse = false; // where the test keeps the daemon from sending all that it should
};

} // namespace rvk
