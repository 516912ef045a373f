#include "base/fd.h"

#include "base/clock.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>

namespace rvk {
namespace {

constexpr int tried_descriptors = 65536;     // where the kernel cannot mark a range: more than this process ever has
constexpr size_t at_once_bytes = 128 * 1024; // ours: some 30 µs of copying, between which others may run
constexpr size_t large_page = size_t{2} * 1024 * 1024; // of x86-64 and of ARM with 4 KiB pages

// Bytes from an address to the large page that begins there or behind it.
constexpr size_t to_large_page(size_t at) { return (large_page - at % large_page) % large_page; }

} // namespace

void prepare_descriptors(int access)
{
    int fd = open("/dev/null", access);
    while (fd >= 0 && fd <= STDERR_FILENO) { fd = dup(fd); }
    if (fd >= 0) { close(fd); }
    if (close_range(STDERR_FILENO + 1, ~0U, CLOSE_RANGE_CLOEXEC) == 0) { return; }
    for (fd = STDERR_FILENO + 1; fd < tried_descriptors; ++fd) { fcntl(fd, F_SETFD, FD_CLOEXEC); }
}

unique_fd open_regular(const char* path, int flags, mode_t mode)
{
    struct stat named = {};
    if (stat(path, &named) == 0 && !S_ISREG(named.st_mode)) { // some devices act when they are opened
        errno = EINVAL;
        return {};
    }
    unique_fd file{open(path, flags | O_NONBLOCK | O_CLOEXEC | O_NOCTTY, mode)};
    struct stat status = {};
    if (file && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        file.reset();
        errno = EINVAL;
    }
    return file;
}

unique_fd open_output(const char* path, mode_t mode)
{
    struct stat named = {};
    const bool is_link = lstat(path, &named) == 0 && S_ISLNK(named.st_mode);
    if (is_link && named.st_uid != 0) {
        errno = ELOOP;
        return {};
    }
    const int missing = mode == 0 || access(path, F_OK) == 0 ? 0 : O_CREAT;
    return open_regular(path, O_RDWR | missing | (is_link ? 0 : O_NOFOLLOW), mode);
}

const char* open_failure()
{
    if (errno == EINVAL) { return "it is no regular file"; }
    return errno == ELOOP ? "it is a symbolic link that is not followed" : strerror(errno);
}

// Not by ppoll: on 32-bit processors glibc 2.36 gives a fortified one 64-bit times for 32-bit ones, and it never waits.
bool wait_readable(int fd, uint64_t at_most_ms)
{
    pollfd entry{fd, POLLIN, 0};
    return poll(&entry, 1, static_cast<int>(std::min<uint64_t>(at_most_ms, INT_MAX))) > 0;
}

off_t size_of(const unique_fd& file)
{
    struct stat status = {};
    return fstat(file.get(), &status) == 0 ? status.st_size : -1;
}

size_t read_full(const unique_fd& file, std::span<uint8_t> into)
{
    size_t done = 0;
    while (done < into.size()) {
        const size_t wanted = std::min(into.size() - done, at_once_bytes);
        const ssize_t n = TEMP_FAILURE_RETRY(read(file.get(), into.data() + done, wanted));
        let_others_run(long_turn_us);
        if (n <= 0) { break; }
        done += static_cast<size_t>(n);
    }
    return done;
}

bool write_full(const unique_fd& file, std::span<const uint8_t> bytes, off_t at)
{
    while (!bytes.empty()) {
        const size_t wanted = std::min(bytes.size(), at_once_bytes);
        const ssize_t n = TEMP_FAILURE_RETRY(pwrite(file.get(), bytes.data(), wanted, at));
        if (n == 0) { errno = ENOSPC; }
        if (n <= 0) { return false; }
        bytes = bytes.subspan(static_cast<size_t>(n));
        at += n;
        let_others_run(short_turn_us);
    }
    return true;
}

page_buffer::page_buffer(size_t bytes)
{
    const size_t unused = to_large_page(bytes); // an eighth more at most, to end with a large page
    const size_t wanted = bytes + (unused <= bytes / 8 ? unused : 0);
    if (wanted + large_page < bytes) { return; }
    void* pages = mmap(nullptr, wanted + large_page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (pages == MAP_FAILED) { return; }
    mapped = {static_cast<uint8_t*>(pages), wanted + large_page};
    in_use = mapped.subspan(to_large_page(reinterpret_cast<uintptr_t>(pages)), bytes);
    // Hints: fewer faults, and no copy of the page tables for a child that only runs a command.
    for (const int advice : {MADV_HUGEPAGE, MADV_DONTFORK}) { madvise(in_use.data(), wanted, advice); }
}

page_buffer::~page_buffer()
{
    if (!mapped.empty()) { munmap(mapped.data(), mapped.size()); }
}

} // namespace rvk
