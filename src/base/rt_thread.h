// The one place that starts threads, with priority, name and alternate signal stack; and pins them to a processor.
#pragma once

#include <pthread.h>

namespace rvk {

using thread_body = void (*)(int argument);

// Starts a thread that runs body(argument).
// name      at most 15 characters, as the kernel shows it
// priority  SCHED_FIFO 1 to 99; 0 for an ordinary thread
// out       receives the thread's handle; null: it is detached
// Result    0, or -1 when the thread could not be created (no privilege, no memory)
// It inherits its creator's signal mask; on its alternate signal stack a handler runs when its own stack is used up.
[[nodiscard]] int start_thread(const char* name, int priority, thread_body body, int argument, pthread_t* out);

// The same for an ordinary thread that nobody joins, with up to three more tries 10 ms apart: memory may be short.
[[nodiscard]] int start_thread_or_retry(const char* name, thread_body body);

void use_alternate_signal_stack(); // for the main thread; start_thread does it, too

// Pins the calling thread to processor `number`; 0 is taken as 1, above 3 as 3. Result: 0, or -1 (none such here).
[[nodiscard]] int pin_to_processor(int number);
int kernel_thread_id(); // the calling thread's; a signal handler may call it

} // namespace rvk
