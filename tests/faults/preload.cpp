// Loaded into the real daemon (LD_PRELOAD): the calls listed below are counted, and one of them fails as a plan
// says. Loaded into anything else, a shell that the daemon starts for one, it changes nothing.
//
// The plan is a file that both map; the test's side of it is faults_test.py. What the daemon's status thread calls all
// the time, whatever the daemon is asked to do, is neither counted nor fails.
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <fcntl.h>
#include <iterator>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

extern "C" int fault_here(int depth); // its name is in the trace

namespace {

struct shared_plan {
    std::atomic<int32_t> nth; // counts down with each call of the name; the one that makes it 0 fails; 0: none fails
    // Those behind it fail too; errno, below 0 a fault of its own, 0: `value` is returned as if it had been done.
    int32_t lasting, error, value;
    std::atomic<int32_t> looks_asked, looks_given; // waiting blocks go back to the system, the rest is counted
    int32_t in_use[8];
    char name[16];
    struct {
        char name[16];
        std::atomic<int32_t> seen;
    } calls[40]; // those that the test knows
};

constexpr size_t demo_picture_bytes = 16 << 20; // less than one takes: the demo is left out for want of memory
shared_plan* plan;
pid_t daemon_process;

__attribute__((constructor)) void map_plan()
{
    const char* const path = getenv("RVK_FAULT_PLAN");
    if (path == nullptr || strcmp(program_invocation_short_name, "rvkd") != 0) { return; }
    const int fd = open(path, O_RDWR | O_CLOEXEC);
    void* const shared = mmap(nullptr, sizeof(shared_plan), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (shared == MAP_FAILED || close(fd) != 0) { abort(); }
    daemon_process = getpid();
    plan = static_cast<shared_plan*>(shared);
}

// Result: whether this call fails; then *value is what it returns, and errno is set.
bool fails(const char* name, long* value)
{
    char thread[16] = "";
    if (plan == nullptr || name == nullptr || getpid() != daemon_process) { return false; }
    prctl(PR_GET_NAME, thread);
    if (strcmp(thread, "rvk-status") == 0) { return false; }
    auto* const call = std::find_if(std::begin(plan->calls), std::end(plan->calls),
                                    [name](const auto& known) { return strcmp(known.name, name) == 0; });
    if (call == std::end(plan->calls)) { abort(); } // the test does not know it
    ++call->seen;
    if (plan->nth == 0 || strcmp(plan->name, name) != 0 || --plan->nth > 0) { return false; }
    plan->nth = plan->lasting;
    if (plan->error < 0) { fault_here(0); }
    if (plan->error != 0) { errno = plan->error; }
    *value = plan->error != 0 ? -1 : plan->value;
    return true;
}

bool no_memory(const char* name, size_t bytes)
{
    long value = 0;
    if (plan != nullptr && bytes > demo_picture_bytes && getpid() == daemon_process) { return true; }
    return fails(name, &value);
}

void look_at_pool()
{
    const int32_t asked = plan->looks_asked;
    if (asked == plan->looks_given) { return; }
    static const auto give_back = reinterpret_cast<void (*)()>(dlsym(RTLD_DEFAULT, "_ZN3rvk9mem_uinitEv"));
    static const auto in_use = reinterpret_cast<int32_t (*)(int)>(dlsym(RTLD_DEFAULT, "_ZN3rvk10mem_in_useEi"));
    give_back(); // both are the daemon's; without them this ends it
    for (int type = 0; type < 8; ++type) { plan->in_use[type] = in_use(type); }
    plan->looks_given = asked;
}

bool is_message(long fd)
{
    int domain = 0;
    socklen_t length = sizeof domain;
    return getsockopt(static_cast<int>(fd), SOL_SOCKET, SO_DOMAIN, &domain, &length) == 0 && domain == AF_UNIX;
}

// Of what is written in one go only the log can be sought in.
const char* log_or_none(long fd) { return syscall(SYS_lseek, fd, 0, SEEK_CUR) >= 0 ? "log" : nullptr; }

} // namespace

// A wild pointer, or a stack without an end, every page of which is touched.
int fault_here(int depth)
{
    static int* volatile nowhere = reinterpret_cast<int*>(64);
    volatile char page[2048];
    page[depth % 2048] = 1;
    if (plan->error == -1) { *nowhere = 1; }
    return depth < 1'000'000 ? fault_here(depth + 1) + page[depth % 2048] : 0;
}

// Any function of up to six whole numbers and pointers, by its symbol: on the processors with 64 bits that this is for,
// all are in registers, and what is one too many is not looked at.
#define CALL(name, symbol)                                                                              \
    extern "C" long hook_##symbol(long, long, long, long, long, long) asm(#symbol);                     \
    long hook_##symbol(long a, long b, long c, long d, long e, long f)                                  \
    {                                                                                                   \
        static const auto real = reinterpret_cast<decltype(&hook_##symbol)>(dlsym(RTLD_NEXT, #symbol)); \
        long value = 0;                                                                                 \
        return fails(name, &value) ? value : real(a, b, c, d, e, f);                                    \
    }
CALL(is_message(a) ? "send_message" : "send_frame", sendto)
CALL(is_message(a) ? "recv_message" : "recv_frame", recvfrom)
// clang-format off
CALL("open", open64) CALL("open", __open64_2) CALL("stat", stat64) CALL("stat", lstat64) CALL("stat", fstat64)
CALL("access", access) CALL("read", read) CALL("ftruncate", ftruncate64) CALL("madvise", madvise) CALL("poll", poll)
CALL("fork", fork) CALL("waitpid", waitpid) CALL("thread", pthread_create) CALL("sigaltstack", sigaltstack)
CALL("socket", socket) CALL("bind", bind) CALL("connect", connect) CALL("setsockopt", setsockopt) CALL("ioctl", ioctl)
CALL("mkdir", mkdir) CALL("chmod", chmod) CALL("fchmod", fchmod) CALL("unlink", unlink) CALL("flock", flock)
CALL("affinity", sched_setaffinity) CALL("setitimer", setitimer) CALL(log_or_none(a), write)
    // clang-format on

    extern "C"
{

    void* __libc_malloc(size_t);
    void* malloc(size_t bytes) { return no_memory("malloc", bytes) ? nullptr : __libc_malloc(bytes); }

    void* hook_mmap(void* at, size_t n, int protection, int flags, int fd, off_t offset) asm("mmap64");
    void* hook_mmap(void* at, size_t n, int protection, int flags, int fd, off_t offset)
    {
        if (fd < 0 && no_memory("mmap", n)) { return MAP_FAILED; }
        return reinterpret_cast<void*>(syscall(SYS_mmap, at, n, protection, flags, fd, offset));
    }

    // Cut short it does as much as it says.
    ssize_t hook_pwrite(int fd, const void* bytes, size_t n, off_t at) asm("pwrite64");
    ssize_t hook_pwrite(int fd, const void* bytes, size_t n, off_t at)
    {
        long value = 0;
        const bool cut = fails("pwrite", &value);
        return cut && value <= 0 ? value : syscall(SYS_pwrite64, fd, bytes, cut ? static_cast<size_t>(value) : n, at);
    }

    // The daemon's one way to sleep.
    int clock_nanosleep(clockid_t clock, int flags, const timespec* until, timespec* left)
    {
        static const auto real = reinterpret_cast<decltype(&clock_nanosleep)>(dlsym(RTLD_NEXT, "clock_nanosleep"));
        long value = 0;
        if (plan != nullptr) { look_at_pool(); }
        return fails("sleep", &value) ? EINTR : real(clock, flags, until, left);
    }

} // extern "C"
