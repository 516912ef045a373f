// strace, attached to a running daemon, that lets a system call of it fail.
#pragma once

#include "system/child.h"

#include <string>

namespace rvk {

class injection {
public:
    // fault  as strace has it behind the call's name: "error=EIO:when=2", each thread's calls counted by themselves
    injection(pid_t daemon, const std::string& call, const std::string& fault);

    // Waits until every thread of the daemon is held.
    [[nodiscard]] bool is_attached() const;

    // Lets the daemon go. Result: whether a call was made to fail, in another thread than the status one.
    [[nodiscard]] bool end();

private:
    pid_t traced;
    std::string status_tid;
    child strace;
};

// A command in front of the daemon's own, with the same effect from its start on; it is the daemon that is our child.
[[nodiscard]] std::vector<std::string> injection_at_start(const std::string& call, const std::string& fault);

// The id of the daemon's thread that writes its status; empty when it has none. Its calls come all the time, whatever
// the daemon is asked to do.
[[nodiscard]] std::string status_thread_of(pid_t daemon);

// Whether the strace that ended last made a call fail in another thread than this one.
[[nodiscard]] bool was_injected(const std::string& but_in);

// The daemon's processor time, in ticks of 10 ms.
[[nodiscard]] uint64_t processor_ticks(pid_t process);

} // namespace rvk
