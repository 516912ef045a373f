// Reads four bytes of a card through rvkd, with nothing but POSIX:  cc read_register.c && ./a.out SLOT ADDR
// What the fields mean stands in docs/messages.md; exit status as rvkctl's.
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

enum { daemon_identity = 0x010a3b00, own_identity = 0x010a6001, head = 40, read_code = 0, data_bytes = 4, seq = 1 };

static void put(uint8_t* at, uint32_t value, int bytes)
{
    for (; bytes > 0; --bytes, value >>= 8) { *at++ = (uint8_t)value; }
}

static uint32_t get(const uint8_t* at, int bytes) { return bytes == 0 ? 0 : *at | get(at + 1, bytes - 1) << 8; }

static struct sockaddr_un address_of(uint32_t identity)
{
    struct sockaddr_un a = {.sun_family = AF_UNIX};
    const char* folder = getenv("APIPC_DIR");
    snprintf(a.sun_path, sizeof a.sun_path, "%s/%08x.sock", folder ? folder : "/run/apipc", identity);
    return a;
}

static int end(const struct sockaddr_un* own, int status, const char* text)
{
    unlink(own->sun_path); // or the next one to use this identity is refused
    fprintf(status == 0 ? stdout : stderr, "%s\n", text);
    return status;
}

int main(int argc, char** argv)
{
    if (argc != 3) { return fprintf(stderr, "give SLOT and ADDR\n"), 2; }
    const struct sockaddr_un own = address_of(own_identity), daemon = address_of(daemon_identity);
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    umask(0117); // members of the folder's group, the daemon among them, may answer
    if (fd < 0 || bind(fd, (const struct sockaddr*)&own, sizeof own) != 0) { return perror(own.sun_path), 3; }
    const struct timeval patience = {.tv_sec = 5};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience); // while the daemon's queue is full
    uint8_t m[head + 1400] = {0};
    put(m + 0, own_identity, 4), put(m + 18, 28, 2), put(m + 20, 14, 4); // who asks; a data message
    const uint32_t slot = (uint32_t)strtoul(argv[1], NULL, 0), addr = (uint32_t)strtoul(argv[2], NULL, 0);
    put(m + 26, read_code, 1), put(m + 27, slot, 1), put(m + 30, seq, 2), put(m + 32, addr, 4), put(m + 36, data_bytes, 2);
    if (sendto(fd, m, head, 0, (const struct sockaddr*)&daemon, sizeof daemon) != head) {
        return end(&own, 3, "rvkd does not run, takes nothing, or this user may not ask it");
    }
    for (;;) { // what is late for one that asked as this one before is passed over
        const ssize_t n = recv(fd, m, sizeof m, 0);
        if (n < 0) { return end(&own, 3, "no answer in 5 s: does an update run? Reading again does no harm"); }
        if (n >= head && m[26] == read_code && get(m + 30, 2) == seq && get(m + 32, 4) == addr) { break; }
    }
    if (get(m + 12, 4) != 0) { return end(&own, 1, "the card did not answer, or refused"); }
    for (uint32_t i = 0; i < get(m + 8, 4) && i < data_bytes; ++i) { printf("%02x", m[38 + i]); }
    return end(&own, 0, "");
}
