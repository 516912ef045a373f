// The log call that every module uses. Two sinks implement it: `log_file` (the daemon's: two alternating files under
// /var/log and standard output) and `log_stderr` (tools: standard error). A program links exactly one, so that a tool
// never empties the daemon's log file by opening it.
#pragma once

#include <cstdio>
#include <string_view>

namespace rvk {

extern int log_debug;   // non-zero: lines also go to standard output; set before the first thread starts
extern int log_d;       // non-zero: lines go to the log file; set before the first thread starts
extern int log_num;     // number of the current log file, 0 or 1
extern FILE* log_fp;    // the open log file, or none
extern int log_lastday; // day of month, 1 to 31, on which it was opened
extern int print_flag;  // non-zero: frames are dumped to standard output; no option sets it

// Writes one line: a header with local time, process, module, function and source line, then the text exactly as
// formatted, up to 6 KiB; the line end is the caller's. Any thread, also under any other lock. With the daemon's sink
// the line is in the file when the call returns, unless the file's limits leave it out (log_limit.h); with neither
// switch set a call formats nothing. It waits for no reader.
void log_print(const char* module, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// A peer's text as a line takes it, to be an argument, never a format: cut at 4,096 bytes, bytes below 0x20 and 0x7F as
// \xNN, so that it forges no line and begins no escape sequence.
struct printable {
    explicit printable(std::string_view peers);
    char text[4096 + 1];
};

// Writes to standard output (1) or standard error (2) without waiting for a reader: what there is no room for is lost,
// counted, and said later. What is printed on the console past the log goes this way. A print is cut at 1,023 bytes.
// Result: false when it was lost.
bool console_write(int fd, const char* bytes, size_t count);
bool console_print(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));

} // namespace rvk

// Where a line comes from. RVK_MODULE is the folder of the library that is being compiled.
#define LOG_HERE RVK_MODULE, __func__, __LINE__
