// The real daemon with planned faults: its start, its plan, and what must hold when a fault is over.
#pragma once

#include "faults/plan.h"
#include "system/cards.h"

#include <array>
#include <cstdint>
#include <vector>

namespace rvk {

// Whether the log's first file has a line of the function (empty: of any) that begins with the text.
[[nodiscard]] bool log_says(const std::string& function, const std::string& text);

// The payload of an update job: type and path, its end included.
[[nodiscard]] std::vector<uint8_t> update_payload(uint32_t type, const std::string& path);

// Whether RVK_FAULTS=all is in the environment: the whole tables and their full lengths, by hand (scripts/soak).
[[nodiscard]] bool wants_all_faults();

// A plan's file, mapped, with the environment that leads a daemon to it.
class planned_faults {
public:
    planned_faults();
    ~planned_faults();
    planned_faults(const planned_faults&) = delete;
    planned_faults& operator=(const planned_faults&) = delete;

    [[nodiscard]] child_setup setup() const;
    void clear(); // all but the short pauses; before the next daemon

    // The daemon gives back its pool's waiting blocks. Result: those that are handed out, by class; all -1 when the
    // daemon does not look.
    [[nodiscard]] std::array<int32_t, pool_classes> look() const;

    fault_plan* plan = nullptr;
};

// Daemon, cards, and a requester; the demo at start is left out for want of memory for its picture.
class FaultsTest : public FilesTest {
protected:
    void SetUp() override;
    void TearDown() override;

    // Says what does not work any more: a greeting, a read of what the card holds, a waited write, a picture. Empty:
    // all works.
    [[nodiscard]] std::string fault_in_service();

    // Sends a command and waits until it has been carried out and its last request has ended. The waiting allocates
    // nothing, and sends nothing but an answer on the thread that carried out the command.
    // Result: what its answers say
    [[nodiscard]] std::vector<int32_t> results_of(const command_fields& command);

    // Starts a daemon with its log in a file that is empty.
    void start_with_log(const child_setup& setup, const std::vector<std::string>& in_front = {});

    // Ends a daemon that was so started. It must serve all but what its log says could not be started.
    void judge_start();

    planned_faults faults;
    std::unique_ptr<conversation> client;
    std::array<int32_t, pool_classes> at_rest{};
    std::string status_tid;             // of the daemon that judge_start ended
    size_t files_at_rest = 0;           // open ones
    std::vector<std::string> arguments; // the daemon's, none or -f, set before SetUp
    std::string picture;                // a small one
};

inline constexpr uint32_t small_width = 64, small_height = 4;

} // namespace rvk
