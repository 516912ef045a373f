// The process's mutexes, annotated so that clang refuses a read of guarded data or a call without the lock.
//
// Lock order: a thread that holds one of these takes only locks further in.
//   file_mutex                              one file job, from its first byte to its reply
//     demo_mutex                            the dispatch's, the update's and the demo's card exchanges
//       pic_mutex                           one picture into card memory
//         write_read_ack_wait_mtx           one synchronous exchange in the process, its wait included
//           find_check_mtx[link]            the life of a link's nodes; the link threads start here
//             mutex_find | mutex_check      calls of completion handlers
//               a queue's mtx | send_mutex | a counter's | mutex_mem | the outbox's     none of these under another
//                 the log's                 innermost: anybody may log
// Under find_check_mtx and all further in nothing waits for a card, a file, another process or a reader of the console,
// and nothing is formatted; a resend's `sendto` is the one system call there.
#pragma once

#include "base/semaphore.h"

#include <pthread.h>

#if defined(__clang__)
#define RVK_TSA(x) __attribute__((x))
#else
#define RVK_TSA(x)
#endif
#define RVK_GUARDED_BY(...) RVK_TSA(guarded_by(__VA_ARGS__))
#define RVK_REQUIRES(...) RVK_TSA(requires_capability(__VA_ARGS__))
#define RVK_EXCLUDES(...) RVK_TSA(locks_excluded(__VA_ARGS__))
#define RVK_ACQUIRE(...) RVK_TSA(acquire_capability(__VA_ARGS__))
#define RVK_RELEASE(...) RVK_TSA(release_capability(__VA_ARGS__))
#define RVK_NO_TSA RVK_TSA(no_thread_safety_analysis)

namespace rvk {

// Default attributes: not recursive, no priority inheritance. Ready from the start, no destructor: the process may exit
// on any thread while others hold it.
class RVK_TSA(capability("mutex")) mutex {
public:
    constexpr mutex() = default;
    mutex(const mutex&) = delete;
    mutex& operator=(const mutex&) = delete;

    void lock() RVK_ACQUIRE() { pthread_mutex_lock(&m); }
    void unlock() RVK_RELEASE() { pthread_mutex_unlock(&m); }

private:
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
};

// A mutex that is held for a few instructions by threads of all priorities, the links' among them. It is known to
// let_holders_run() from its construction on, before the first thread is started.
class RVK_TSA(capability("mutex")) short_mutex : public mutex {
public:
    short_mutex();
    ~short_mutex() = default;

private:
    friend void let_holders_run();
    short_mutex* next;
};

// Takes and gives back every short mutex. A thread above the priority of others on its processor calls it every so
// often while it computes: whoever was preempted with one of them held gets to run that long, and so do those on other
// processors that wait for it. Priority inheritance would not help where none of the waiting is above the preempting.
void let_holders_run();

// As a mutex, but given to whoever has waited longest, whatever the priorities: for what is held while a card is waited
// for. Under an ordinary one a thread that takes it again at once keeps every thread below its priority out.
class RVK_TSA(capability("mutex")) fair_mutex {
public:
    constexpr fair_mutex() = default;
    fair_mutex(const fair_mutex&) = delete;
    fair_mutex& operator=(const fair_mutex&) = delete;

    void lock() RVK_ACQUIRE() RVK_NO_TSA
    {
        waiter self;
        inner.lock();
        const bool wait = held;
        if (wait) { last = (last == nullptr ? first : last->next) = &self; }
        held = true;
        inner.unlock();
        if (wait) { self.turn.wait(); }
    }
    void unlock() RVK_RELEASE() RVK_NO_TSA
    {
        inner.lock();
        waiter* next = first;
        if (next != nullptr) { first = next->next; }
        if (first == nullptr) { last = nullptr; }
        held = next != nullptr; // by that one, from here on
        inner.unlock();
        if (next != nullptr) { next->turn.post(); }
    }

private:
    struct waiter {
        semaphore turn{0};
        waiter* next = nullptr;
    };
    mutex inner; // for a few instructions
    waiter *first = nullptr, *last = nullptr;
    bool held = false;
};

template <typename Mutex>
class RVK_TSA(scoped_lockable) scoped_lock {
public:
    explicit scoped_lock(Mutex& held) RVK_ACQUIRE(held) : m(held) { m.lock(); }
    ~scoped_lock() RVK_RELEASE() { m.unlock(); }
    scoped_lock(const scoped_lock&) = delete;
    scoped_lock& operator=(const scoped_lock&) = delete;

private:
    Mutex& m;
};

} // namespace rvk
