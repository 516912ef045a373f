// The log sink of the benchmarks: formats nothing, as the daemon's own does without its switches.
#include "log_quiet.h"

#include "main/log.h"

namespace rvk {

int log_debug = 0;
int log_d = 0;
int log_num = 0;
FILE* log_fp = nullptr;
int log_lastday = 0;
int print_flag = 0;

void log_print(const char*, const char*, int, const char* format, ...)
{
    if (bench::log_listener != nullptr) { bench::log_listener(format); }
}

bool console_write(int, const char*, size_t) { return true; }
bool console_print(int, const char*, ...) { return true; }

void (*bench::log_listener)(const char* format) = nullptr;

} // namespace rvk
