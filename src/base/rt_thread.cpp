#include "base/rt_thread.h"

#include "base/clock.h"

#include <algorithm>
#include <csignal>
#include <memory>
#include <new>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace rvk {
namespace {

constexpr size_t signal_stack_bytes = 128 * 1024; // ours: a trace of 100 frames walks the unwind tables on it
constexpr size_t stack_bytes = 512 * 1024;        // ours, whatever limit was inherited; the most used is some 30 KiB

constexpr int start_tries = 4;          // ours
constexpr uint64_t start_retry_ms = 10; // ours

struct start_record {
    const char* name;
    thread_body body;
    int argument;
};

void* trampoline(void* opaque)
{
    const std::unique_ptr<start_record> start{static_cast<start_record*>(opaque)};
    pthread_setname_np(pthread_self(), start->name);
    use_alternate_signal_stack();
    start->body(start->argument);
    return nullptr;
}

} // namespace

int start_thread(const char* name, int priority, thread_body body, int argument, pthread_t* out)
{
    std::unique_ptr<start_record> start{new (std::nothrow) start_record{name, body, argument}};
    if (!start) { return -1; }
    pthread_attr_t attributes;
    if (pthread_attr_init(&attributes) != 0) { return -1; }
    pthread_t thread{};
    if (out == nullptr) { pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED); } // nobody could join it
    sched_param parameter{};
    parameter.sched_priority = priority;
    const bool started = pthread_attr_setstacksize(&attributes, stack_bytes) == 0 &&
                         (priority == 0 || (pthread_attr_setinheritsched(&attributes, PTHREAD_EXPLICIT_SCHED) == 0 &&
                                            pthread_attr_setschedpolicy(&attributes, SCHED_FIFO) == 0 &&
                                            pthread_attr_setschedparam(&attributes, &parameter) == 0)) &&
                         pthread_create(&thread, &attributes, trampoline, start.get()) == 0;
    pthread_attr_destroy(&attributes);
    if (!started) { return -1; }
    static_cast<void>(start.release()); // the thread's own from here on
    if (out != nullptr) { *out = thread; }
    return 0;
}

int start_thread_or_retry(const char* name, thread_body body)
{
    for (int left = start_tries; start_thread(name, 0, body, 0, nullptr) != 0; pause_ms(start_retry_ms)) {
        if (--left == 0) { return -1; }
    }
    return 0;
}

void use_alternate_signal_stack()
{
    void* memory = mmap(nullptr, signal_stack_bytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) { return; } // the thread runs on; only a stack overflow would then go without a trace
    stack_t stack{};
    stack.ss_sp = memory;
    stack.ss_size = signal_stack_bytes;
    sigaltstack(&stack, nullptr);
}

int pin_to_processor(int number)
{
    cpu_set_t set;
    CPU_ZERO(&set);
    CPU_SET(static_cast<size_t>(number == 0 ? 1 : std::min(number, 3)), &set);
    return sched_setaffinity(0, sizeof set, &set);
}

int kernel_thread_id() { return static_cast<int>(syscall(SYS_gettid)); }

} // namespace rvk
