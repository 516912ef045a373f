#include "explorer.h"

#include "mem/mem.h"
#include "queue/queue.h"
#include "raw_msg/link_threads.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <deque>
#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <semaphore.h>
#include <thread>
#include <utility>

using namespace rvk;
using namespace std::chrono_literals;

extern "C" {
int __real_pthread_mutex_lock(pthread_mutex_t* m);
int __real_pthread_mutex_unlock(pthread_mutex_t* m);
int __real_sem_wait(sem_t* s);
int __real_sem_post(sem_t* s);
}

namespace {

constexpr int preemptions_max = 3;
constexpr size_t steps_max = 5000; // of a run that does not end

struct runner {
    std::string name;
    sem_t turn{};
    std::function<bool()> can_go_on{}; // none: it can
    std::vector<const void*> held{};   // its mutexes, outermost first
    bool over = false, lets_others = false;
};

// One choice: who could run, the one who had run first; and how many of them have been tried.
struct choice {
    std::vector<size_t> could;
    size_t tried = 0;
};

std::deque<runner> runners;
std::vector<choice> choices; // of this run, and those before it up to the one that is made differently
size_t made;                 // of this run
int preemptions;
std::string wrong;
bool ended;
sem_t all_over;
thread_local size_t self = SIZE_MAX; // of an actor's thread

std::string who_ran()
{
    std::string text = "; who ran:";
    for (const choice& c : choices) { text += ' ' + runners[c.could[c.tried]].name; }
    return text;
}

[[noreturn]] void stuck(const char* why)
{
    fprintf(stderr, "%s%s\n", why, who_ran().c_str());
    abort();
}

// Result: who can run; whoever has run first.
std::vector<size_t> able()
{
    const size_t first = self == SIZE_MAX ? 0 : self;
    std::vector<size_t> out, last;
    for (size_t k = 0; k < runners.size(); ++k) {
        const size_t i = (first + k) % runners.size();
        if (!runners[i].over && !is_waiting(i)) { (runners[i].lets_others ? last : out).push_back(i); }
    }
    return out.empty() ? last : out;
}

// Result: who runs next.
size_t choose()
{
    if (made == choices.size()) {
        choice c{able()};
        if (c.could.empty()) { stuck("nobody can run"); }
        if (made >= steps_max) { stuck("it does not end"); }
        if (c.could.front() == self && preemptions >= preemptions_max) { c.could.resize(1); }
        choices.push_back(std::move(c));
    }
    const choice& c = choices[made++];
    if (c.could.front() == self && c.tried > 0) { ++preemptions; }
    return c.could[c.tried];
}

void pass_to(size_t next)
{
    if (next == self) { return; }
    const bool over = runners[self].over; // once it is another's turn, it may be the next run's
    __real_sem_post(&runners[next].turn);
    if (!over) { __real_sem_wait(&runners[self].turn); }
}

void leave()
{
    runners[self].over = true;
    std::ranges::all_of(runners, &runner::over) ? void(__real_sem_post(&all_over)) : pass_to(choose());
}

// Steps back to the last choice that can be made differently. Result: false when there is none.
bool next_schedule()
{
    while (!choices.empty() && choices.back().tried + 1 >= choices.back().could.size()) { choices.pop_back(); }
    if (choices.empty()) { return false; }
    ++choices.back().tried;
    return true;
}

// A thread that runs its actor again and again, each time that it is given its first turn.
void run_each_time(size_t i, const actor& a)
{
    self = i;
    for (__real_sem_wait(&runners[i].turn); !ended; __real_sem_wait(&runners[i].turn)) {
        a.body();
        leave();
    }
}

bool is_explored(const void* m) { return self != SIZE_MAX && m != static_cast<const void*>(&mutex_mem); }

// The order in which mutexes may be nested.
int rank_of(const void* m)
{
    if (m >= &find_check_mtx && m < &find_check_mtx + 1) { return 1; }
    return m == static_cast<const void*>(&mutex_find) || m == static_cast<const void*>(&mutex_check) ? 2 : 3;
}

} // namespace

namespace rvk {

void may_switch() { pass_to(choose()); }

void wait_until(const std::function<bool()>& holds)
{
    runners[self].can_go_on = holds;
    may_switch();
    runners[self].can_go_on = nullptr;
}

void wait_for_others()
{
    runners[self].lets_others = true;
    may_switch();
    runners[self].lets_others = false;
}

bool is_waiting(size_t actor) { return runners[actor].can_go_on && !runners[actor].can_go_on(); }

void found_wrong(const std::string& what)
{
    if (wrong.empty()) { wrong = what + who_ran(); }
}

size_t explore(const std::vector<actor>& actors, const std::function<void()>& begin,
               const std::function<std::string()>& end)
{
    cpu_set_t here;
    CPU_ZERO(&here);
    CPU_SET(static_cast<size_t>(sched_getcpu()), &here);
    sched_setaffinity(0, sizeof here, &here); // threads that run one at a time are quicker on one processor
    size_t schedules = 0;
    ended = false;
    std::vector<std::thread> threads;
    for (const actor& a : actors) { runners.push_back({a.name}); }
    for (size_t i = 0; i < actors.size(); ++i) { threads.emplace_back(run_each_time, i, std::cref(actors[i])); }
    do {
        begin();
        made = 0;
        preemptions = 0;
        for (runner& r : runners) { r.over = false; }
        __real_sem_post(&runners[choose()].turn);
        __real_sem_wait(&all_over);
        // The kernel's own work does not come between such threads, and who closes an inotify waits for it.
        if (++schedules % 256 == 0) { std::this_thread::sleep_for(1ms); }
        if (const std::string said = end(); !said.empty()) { found_wrong(said); }
    } while (wrong.empty() && next_schedule());
    ended = true;
    for (runner& r : runners) { __real_sem_post(&r.turn); }
    for (std::thread& t : threads) { t.join(); }
    runners.clear();
    choices.clear();
    EXPECT_EQ(std::exchange(wrong, ""), "");
    return schedules;
}

} // namespace rvk

extern "C" {

const char* __lsan_default_suppressions() { return "leak:RawMsgBuffGet"; } // blocks are counted
void __asan_on_error() { fprintf(stderr, "%s\n", who_ran().c_str()); }

int __wrap_pthread_mutex_lock(pthread_mutex_t* m)
{
    if (!is_explored(m)) { return __real_pthread_mutex_lock(m); }
    const auto is_held_by = [m](const runner& r) { return std::ranges::count(r.held, m) != 0; };
    const auto is_free = [&is_held_by] { return std::ranges::none_of(runners, is_held_by); };
    if (!is_free() || rank_of(m) == 1) { wait_until(is_free); }
    std::vector<const void*>& held = runners[self].held;
    if (!held.empty() && rank_of(held.back()) >= rank_of(m)) { found_wrong("a mutex was taken against the order"); }
    held.push_back(m);
    return 0;
}

int __wrap_pthread_mutex_unlock(pthread_mutex_t* m)
{
    if (!is_explored(m)) { return __real_pthread_mutex_unlock(m); }
    runners[self].held.pop_back();
    return 0;
}

int __wrap_sem_wait(sem_t* s)
{
    const auto is_posted = [s, value = 0]() mutable { return sem_getvalue(s, &value) == 0 && value > 0; };
    if (self != SIZE_MAX) { wait_until(is_posted); }
    return __real_sem_wait(s);
}

// Whoever posts may be preempted before it returns, and then still touches the semaphore.
int __wrap_sem_post(sem_t* s)
{
    __real_sem_post(s);
    if (self == SIZE_MAX) { return 0; }
    may_switch();
    return *reinterpret_cast<volatile const char*>(s) * 0;
}
}
