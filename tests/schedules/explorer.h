// Every interleaving of a few threads, with up to three preemptions each: real threads, of which one runs at a time.
//
// The program is linked so that taking a mutex, waiting for and posting a semaphore end here; the test adds sending.
// Before each another thread that can run may go on. A run is repeated with the same choices up to one of them, which
// is then made differently, until all are exhausted. Of the mutexes only a link's own is such a place: the others are
// held for one step that depends on nothing before it; an order between them is an order between the places around.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace rvk {

struct actor {
    std::string name;
    std::function<void()> body;
};

// Runs `begin`, the actors, then `end`, which says what was wrong, under each schedule until something was: then the
// test fails with that and the choices made. Result: how many schedules.
size_t explore(const std::vector<actor>& actors, const std::function<void()>& begin,
               const std::function<std::string()>& end);

// For actors. Another may go on; this one does only when the condition holds.
void may_switch();
void wait_until(const std::function<bool()>& holds);
void wait_for_others(); // until none of them can run
[[nodiscard]] bool is_waiting(size_t actor);
void found_wrong(const std::string& what);

} // namespace rvk
