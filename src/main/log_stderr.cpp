// The log sink of tools: the text alone, on standard error.
#include "main/log.h"

#include <cstdarg>

namespace rvk {

int log_debug = 0;
int log_d = 0;
int log_num = 0;
FILE* log_fp = nullptr;
int log_lastday = 0;
int print_flag = 0;

void log_print(const char*, const char*, int, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    vfprintf(stderr, format, arguments); // locks the stream for the whole text
    va_end(arguments);
}

} // namespace rvk
