// Loaded into the real daemon (LD_PRELOAD): its allocations fail as a plan says, its long pauses are cut short, and its
// pool is looked at from inside. Loaded into anything else, a shell that the daemon starts for one, it changes nothing.
#include "faults/plan.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" {
void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
}

namespace {

constexpr uint64_t short_enough_ns = 20'000'000, shortened_ns = 1'000'000;

rvk::fault_plan* plan = nullptr; // before main; what the system's start allocates is not counted

__attribute__((constructor)) void read_plan()
{
    const char* const path = getenv(rvk::fault_plan_variable);
    if (path == nullptr || strcmp(program_invocation_short_name, "rvkd") != 0) { return; }
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    void* const shared = mmap(nullptr, sizeof(rvk::fault_plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (fd < 0 || shared == MAP_FAILED) { abort(); }
    close(fd);
    plan = static_cast<rvk::fault_plan*>(shared);
}

bool is_its_turn()
{
    int64_t left = plan->fail_at;
    while (left > 0 && !plan->fail_at.compare_exchange_weak(left, left > 1 || plan->all_behind == 0 ? left - 1 : 1)) {}
    return left == 1;
}

bool fails(size_t bytes)
{
    if (plan == nullptr) { return false; }
    ++plan->seen;
    const uint64_t room = plan->room;
    if ((room == 0 || bytes <= room) && !is_its_turn()) { return false; }
    ++plan->failed;
    errno = ENOMEM;
    return true;
}

void look_at_pool()
{
    const uint32_t asked = plan->looks_asked;
    if (asked == plan->looks_given) { return; }
    static const auto give_back = reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, "_ZN3rvk9mem_uinitEv"));
    static const auto count = reinterpret_cast<int32_t (*)(int)>(dlsym(RTLD_DEFAULT, "_ZN3rvk10mem_in_useEi"));
    if (give_back == nullptr || count == nullptr) { abort(); }
    give_back();
    for (size_t type = 0; type < rvk::pool_classes; ++type) { plan->in_use[type] = count(static_cast<int>(type)); }
    plan->looks_given = asked;
}

uint64_t ns_of(const timespec& t)
{
    return static_cast<uint64_t>(t.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(t.tv_nsec);
}

} // namespace

extern "C" {

void* malloc(size_t bytes) { return fails(bytes) ? nullptr : __libc_malloc(bytes); }

void* calloc(size_t count, size_t bytes) { return fails(count * bytes) ? nullptr : __libc_calloc(count, bytes); }

void* realloc(void* old, size_t bytes) { return fails(bytes) ? nullptr : __libc_realloc(old, bytes); }

int posix_memalign(void** out, size_t alignment, size_t bytes)
{
    void* const got = fails(bytes) ? nullptr : __libc_memalign(alignment, bytes);
    if (got != nullptr) { *out = got; }
    return got != nullptr ? 0 : ENOMEM;
}

void* aligned_alloc(size_t alignment, size_t bytes)
{
    return fails(bytes) ? nullptr : __libc_memalign(alignment, bytes);
}

// As everywhere here the one with 64-bit offsets, mmap64. A file's mapping is no allocation.
void* mmap(void* where, size_t bytes, int protection, int flags, int fd, off_t offset)
{
    if (fd < 0 && fails(bytes)) { return MAP_FAILED; }
    return reinterpret_cast<void*>(syscall(SYS_mmap, where, bytes, protection, flags, fd, offset));
}

// The daemon's one way to sleep: until a time of the monotonic clock.
int clock_nanosleep(clockid_t clock, int flags, const timespec* until, timespec* left)
{
    static const auto sleep =
        reinterpret_cast<int (*)(clockid_t, int, const timespec*, timespec*)>(dlsym(RTLD_NEXT, "clock_nanosleep"));
    if (plan == nullptr || flags != TIMER_ABSTIME) { return sleep(clock, flags, until, left); }
    look_at_pool();
    timespec now{};
    clock_gettime(clock, &now);
    if (plan->short_pauses == 0 || ns_of(*until) < ns_of(now) + short_enough_ns) {
        return sleep(clock, flags, until, left);
    }
    const uint64_t end = ns_of(now) + shortened_ns;
    const timespec sooner{static_cast<time_t>(end / 1'000'000'000), static_cast<long>(end % 1'000'000'000)};
    return sleep(clock, flags, &sooner, left);
}

} // extern "C"
