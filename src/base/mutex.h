// The process's only kind of mutex, annotated so that clang refuses a read of guarded data or a call without the lock.
//
// Lock order: a thread that holds one of these takes only locks further in.
//   file_mutex                              one file job, from its first byte to its reply
//     demo_mutex                            the dispatch's, the update's and the demo's card exchanges
//       pic_mutex                           one picture into card memory
//         write_read_ack_wait_mtx           one synchronous exchange in the process, its wait included
//           find_check_mtx[link]            the life of a link's nodes; the link threads start here
//             mutex_find | mutex_check      calls of completion handlers
//               a queue's mtx | send_mutex | a counter's | mutex_mem     none of these under another
//                 the log's                 innermost: anybody may log
// Nothing that waits without bound for a card, a file or another process is called with a lock below
// write_read_ack_wait_mtx held.
#pragma once

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

class RVK_TSA(scoped_lockable) scoped_lock {
public:
    explicit scoped_lock(mutex& held) RVK_ACQUIRE(held) : m(held) { m.lock(); }
    ~scoped_lock() RVK_RELEASE() { m.unlock(); }
    scoped_lock(const scoped_lock&) = delete;
    scoped_lock& operator=(const scoped_lock&) = delete;

private:
    mutex& m;
};

} // namespace rvk
