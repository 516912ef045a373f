// See the header. A semaphore that cannot be had does not fail the opening: the links are of use without it, to whoever
// reads and writes single packets. What needs it fails where it is taken.
#include "eth_raw/bus_semaphore.h"

#include "eth_raw/rvkbus.h"
#include "main/log.h"

#include <cerrno>
#include <cstring>
#include <sys/sem.h>

namespace rvk {

int sem_id = -1;

namespace {

union semun { // the caller defines it, says semctl
    int val;
    semid_ds* buf;
    unsigned short* array;
};

int32_t change(short by)
{
    sembuf operation{0, by, SEM_UNDO};
    while (semop(sem_id, &operation, 1) != 0) {
        if (errno != EINTR) { return -1; }
    }
    return 0;
}

} // namespace

int32_t open_semaphore()
{
    sem_id = semget(bus_semaphore_key, 1, IPC_CREAT | IPC_EXCL | 0666);
    int error = errno;
    log_print(LOG_HERE, "sem_id = %d, errno = %d.\n", sem_id, error);
    if (sem_id >= 0) {
        if (set_semvalue() == 0) { return 0; }
        log_print(LOG_HERE, "Failed to initialize semaphore(sem_id : %d).\n", sem_id);
        del_semvalue(); // of value 0, it would hold everybody who attaches to it for ever
        return -1;
    }
    if (error == EEXIST) {
        sem_id = semget(bus_semaphore_key, 1, 0);
        error = errno;
        log_print(LOG_HERE, "sem_id(%d) already exits.\n", sem_id);
    }
    if (sem_id < 0) {
        log_print(LOG_HERE, "no semaphore of key %d (%s): every block operation will fail\n", bus_semaphore_key,
                  strerror(error));
    }
    return 0;
}

int32_t set_semvalue()
{
    semun value{};
    value.val = 1;
    if (semctl(sem_id, 0, SETVAL, value) == 0) { return 0; }
    log_print(LOG_HERE, "%s:%d:set sem val failed.\n", __func__, __LINE__);
    return -1;
}

void del_semvalue()
{
    if (semctl(sem_id, 0, IPC_RMID) != 0) { log_print(LOG_HERE, "Failed to delete semaphore\n"); }
}

int32_t semaphore_p()
{
    if (change(-1) == 0) { return 0; }
    log_print(LOG_HERE, "%s:%d:semaphore P func failed\n", __func__, __LINE__);
    return -1;
}

int32_t semaphore_v()
{
    if (change(1) == 0) { return 0; }
    log_print(LOG_HERE, "%s:%d:semaphore V func failed\n", __func__, __LINE__);
    return -1;
}

} // namespace rvk
