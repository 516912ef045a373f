// Exactly what the daemon expects of the board. The board's own library provides it; `platform/local` is our stand-in
// for any Linux machine. Its calls are weak, so that a test or a tool replaces one by defining its own.
#pragma once

#include <cstdint>
#include <cstdio>

extern "C" {

// Called for each message, on the thread that waits: two values of the service's own, the message, valid until the
// return, and its length in bytes. The result is not used.
typedef int (*apipc_callback)(int, int, const void* message, int length);

// Registers the calling process under an identity. The second argument is the service's, 0 here.
// Result: 0; non-zero when the identity is taken or the service cannot be had.
int apipc_init(uint32_t identity, int);

// Delivers incoming messages to the callback on the calling thread, one for the process. The first argument is the
// service's, 0 here. Returns -1, only on an error; call it again.
int apipc_loop_wait(int, apipc_callback callback);

// Sends one message. Result: 0 when it was delivered; negative when not: -EAGAIN when the peer's queue is full, else
// another error (-ENOENT, -ECONNREFUSED: it is gone). Any thread; never waits.
int apipc_send(uint32_t destination, const void* message, uint32_t bytes);

int apcard_bit_self(void); // this board's number, 0 to 255

// Runs a shell command line and waits for it. Result: as system(). Any thread; blocks as long as the command runs.
int my_system(const char* line);

// A readable stream (mode "r") on the output of a shell command line; fclose ends it. Null when it cannot be run.
FILE* my_popen(const char* line, const char* mode);
}
