// Processes beside the one that runs a row: one that measures on demand, the real daemon, each stopped while the bare
// loop runs; and what the kernel says about a process.
#pragma once

#include "base/fd.h"
#include "cards.h"
#include "harness.h"

#include <functional>
#include <string>
#include <sys/types.h>
#include <utility>
#include <vector>

namespace rvk::bench {

// A child that ends with its parent.
class child {
public:
    explicit child(const std::function<void()>& body); // runs in the child, which ends with it
    child(child&& other) noexcept : process(std::exchange(other.process, -1)) {}
    ~child();

    [[nodiscard]] pid_t pid() const { return process; }
    void stop() const; // returns when none of its threads runs any more
    void go_on() const;
    void wait();                                               // for its end
    double stopped(const std::function<double()>& loop) const; // what the loop gives, while the child is stopped

private:
    pid_t process = -1;
};

struct ends { // of a socket
    ends();
    unique_fd here, there;
};

// A child that prepares itself and then measures what it is asked for.
class worker {
public:
    // measure  argument as given to measure() below; result per unit of work
    // prepare  once, before the first measurement
    // Only the calling thread lives on in the child.
    explicit worker(
        const std::function<double(size_t)>& measure,
        const std::function<void()>& prepare = [] { take_processor(sender_priority); });
    [[nodiscard]] double measure(size_t argument);
    [[nodiscard]] const child& process() const { return body; }

private:
    ends channel;
    child body;
};

// Starts rvkd, found beside this program, without options, on the bench's processor. Waits for nothing.
[[nodiscard]] child launch_daemon();

// The same, and waits until its start is over: demo done, idle. `cards` are those that it talks to; every thread of it
// is then on the bench's processor.
[[nodiscard]] child start_daemon(simulated_cards& cards);

// A copy of a process's packet socket, as it is bound to its link.
[[nodiscard]] unique_fd packet_socket_of(pid_t process);

// Nanoseconds of processor time that all threads of a process have used; its resident memory in bytes, now and at most
// since that count was started anew.
[[nodiscard]] double processor_time_ns(pid_t process);
[[nodiscard]] double resident_bytes(pid_t process, const char* which = "VmRSS:");
[[nodiscard]] inline double peak_bytes(pid_t process) { return resident_bytes(process, "VmHWM:"); }
void forget_peak(pid_t process);

// Starts a program and waits for it. Result: what it wrote to standard error.
[[nodiscard]] std::string run_program(const std::vector<std::string>& arguments);

[[nodiscard]] std::string own_folder(); // where this program lies

} // namespace rvk::bench
