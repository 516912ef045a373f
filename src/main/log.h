// The log, and what is printed on the console past it. Two sinks implement log_print and console_write, of which a
// program links one: `log_file` (the daemon's: two alternating files under /var/log and standard output) and
// `log_stderr` (tools: standard error). Any thread calls all of it, under any other lock: the log's are the innermost.
#pragma once

#include <cstddef>
#include <cstdio>
#include <string_view>

namespace rvk {

inline int log_debug = 0;      // non-zero: lines also go to standard output; set before the first thread starts
inline int log_d = 0;          // non-zero: lines go to the file, opened (emptied) anyway; set as above
inline int log_num = 0;        // number of the current log file, 0 or 1
inline FILE* log_fp = nullptr; // the open log file, or none
inline int log_lastday = 0;    // day of month, 1 to 31, on which it was opened
inline int print_flag = 0;     // non-zero: frames are dumped to standard output; no option sets it

// Writes one line; the caller's text has its line end. The tools' sink writes the text alone; the daemon's writes local
// time, process, module, function and source line before it, cuts it at 6 KiB, waits for no reader, and has the line in
// the file on return, unless the file's limits leave it out; with neither switch set a call formats nothing.
void log_print(const char* module, const char* function, int line, const char* format, ...)
    __attribute__((format(printf, 4, 5)));

// Set in the thread that logs the process's end: no limit counts; it waits at most 100 ms for a lock.
inline thread_local bool logs_process_end = false;

// A peer's text as a line takes it, to be an argument, never a format: cut at 4,096 bytes, bytes below 0x20 and 0x7F as
// \xNN, so that it forges no line and begins no escape sequence.
struct printable {
    explicit printable(std::string_view peers);
    char text[4096 + 1];
};

// Writes to standard output (1) or standard error (2). The daemon's waits for no reader: what does not fit is lost,
// counted, and said with the next text that does. A print is cut at 1,023 bytes. Result: false when it was lost.
bool console_write(int fd, const char* bytes, size_t count);
bool console_print(int fd, const char* format, ...) __attribute__((format(printf, 2, 3)));

} // namespace rvk

// Where a line comes from. RVK_MODULE is the folder of the library that is being compiled.
#define LOG_HERE RVK_MODULE, __func__, __LINE__
