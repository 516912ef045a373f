// A counting semaphore of this process whose wait lasts until a post, whatever signals arrive meanwhile.
#pragma once

#include <cerrno>
#include <semaphore.h>

namespace rvk {

// No destructor: as with every global, the process may exit while a thread waits. An unnamed POSIX semaphore holds
// nothing that would have to be given back.
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

} // namespace rvk
