// Mutexes, annotated so that clang refuses an access to guarded data or a call without the lock; and a semaphore.
//
// Lock order: a thread that holds one of these takes only locks further in.
//   file_mutex                              one file job, from its first byte to its reply
//     demo_mutex                            the dispatch's and the demo's exchanges, an update's generation read
//       pic_mutex                           one picture into card memory
//         write_read_ack_wait_mtx           one synchronous exchange in the process, its wait included
//           find_check_mtx[link]            the life of a link's nodes; the link threads start here
//             mutex_find | mutex_check      calls of completion handlers
//               a queue's mtx | send_mutex | a sequence's | mutex_mem     none of these under another
//                 the log's | a console stream's                     innermost: anybody may log
// The outbox's is taken under file_mutex or under none, and none under it: messages are offered there without waiting.
// Under find_check_mtx and all further in nothing waits for a card, another process or a reader of the console. The
// system calls there, beside the writing of the log: under send_mutex a `sendto`, which waits while the socket's buffer
// is full, with a second one 1 ms later where the first says that it would block; a frame's dump, with print_flag; and
// ioctl and bind, for a device that came back. Logged is only what is rare: a send that would block, a link that is not
// open (once), a device that cannot be bound, a queue's count that went wrong, a block that is released twice.
#pragma once

#include "base/clock.h"

#include <cerrno>
#include <cstdint>
#include <pthread.h>
#include <semaphore.h>

#if defined(__clang__)
#define RVK_TSA(x) __attribute__((x))
#else
#define RVK_TSA(x)
#endif
#define RVK_GUARDED_BY(...) RVK_TSA(guarded_by(__VA_ARGS__))
#define RVK_REQUIRES(...) RVK_TSA(requires_capability(__VA_ARGS__))
#define RVK_EXCLUDES(...) RVK_TSA(locks_excluded(__VA_ARGS__))
#define RVK_ACQUIRE(...) RVK_TSA(acquire_capability(__VA_ARGS__))
#define RVK_TRY_ACQUIRE(...) RVK_TSA(try_acquire_capability(__VA_ARGS__))
#define RVK_RELEASE(...) RVK_TSA(release_capability(__VA_ARGS__))
#define RVK_NO_TSA RVK_TSA(no_thread_safety_analysis)

namespace rvk {

// Not recursive, no priority inheritance; no destructor: the process may exit on any thread while others hold it.
class RVK_TSA(capability("mutex")) mutex {
public:
    constexpr mutex() = default;
    mutex(const mutex&) = delete;
    mutex& operator=(const mutex&) = delete;

    void lock() RVK_ACQUIRE() { pthread_mutex_lock(&m); }
    void unlock() RVK_RELEASE() { pthread_mutex_unlock(&m); }

    // Waits at most `ms` milliseconds, in steps of 1. Result: false when another thread still holds it.
    [[nodiscard]] bool lock_within(int ms) RVK_TRY_ACQUIRE(true)
    {
        for (; pthread_mutex_trylock(&m) != 0; pause_ms(1)) {
            if (ms-- == 0) { return false; }
        }
        return true;
    }

private:
    pthread_mutex_t m = PTHREAD_MUTEX_INITIALIZER;
};

// Counts posts; a wait lasts until there is one, whatever signals arrive. No destructor: there is nothing to give back.
class semaphore {
public:
    semaphore() : semaphore(0) {}
    explicit semaphore(unsigned initial) { sem_init(&s, 0, initial); }
    semaphore(const semaphore&) = delete;
    semaphore& operator=(const semaphore&) = delete;

    void post() { sem_post(&s); } // from any thread, and from a signal handler
    void wait()
    {
        while (sem_wait(&s) != 0 && errno == EINTR) {}
    }

private:
    sem_t s;
};

// As a mutex, but given to whoever has waited longest, whatever the priorities: for what is held while a card is waited
// for. Under an ordinary one a thread that takes it again at once keeps every thread below its priority out.
class RVK_TSA(capability("mutex")) fair_mutex {
public:
    void lock() RVK_ACQUIRE() RVK_NO_TSA
    {
        inner.lock();
        const uint32_t mine = asked++;
        const bool wait = mine != served;
        inner.unlock();
        if (wait) { turns[mine % threads_max].wait(); }
    }
    void unlock() RVK_RELEASE() RVK_NO_TSA
    {
        inner.lock();
        const uint32_t next = ++served; // whose it is from here on
        const bool wake = next != asked;
        inner.unlock();
        if (wake) { turns[next % threads_max].post(); }
    }

private:
    static constexpr uint32_t threads_max = 16; // ours: more than the process has that take it
    mutex inner;                                // for a few instructions
    uint32_t asked = 0, served = 0;             // numbers in the order of asking: the next one's, the holder's
    semaphore turns[threads_max]; // by number; not on the waiters' stacks, since post() may touch one after it woke
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
