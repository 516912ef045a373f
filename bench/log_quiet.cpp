// The log sink of the benchmarks: formats nothing, as the daemon's own does without its switches.
#include "log_quiet.h"

#include "main/log.h"

namespace rvk {

void log_print(const char*, const char*, int, const char* format, ...)
{
    if (bench::log_listener != nullptr) { bench::log_listener(format); }
}

bool console_write(int, const char*, size_t) { return true; }

void (*bench::log_listener)(const char* format) = nullptr;

} // namespace rvk
