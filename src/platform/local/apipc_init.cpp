// Registers the process: its endpoint is bound here and given back by the kernel when the process ends.
#include "platform/local/endpoint.h"

#include "base/counters.h"
#include "main/log.h"
#include "platform/platform.h"

#include <cerrno>
#include <cstring>
#include <sys/stat.h>

namespace {

// What to do about it, where the bare error would not say so.
void log_refusal(uint32_t identity, int error)
{
    const char* directory = rvk::local::endpoint_directory();
    const char* reason = error == EADDRINUSE     ? "another process is bound to it, or another user's left it behind"
                         : error == ENAMETOOLONG ? "the folder's name is too long for a socket, set a shorter APIPC_DIR"
                         : error == EWOULDBLOCK  ? "another process has kept the folder locked for a second"
                         : error == EEXIST       ? "a file that is not a socket has its name, remove it"
                                                 : strerror(error);
    rvk::log_print(LOG_HERE, "endpoint %08x in %s refused: %s\n", static_cast<unsigned>(identity), directory, reason);
}

uint32_t own_identity;
struct stat own_socket; // its file, as it was bound

// Whether the socket's file is still there, and not another's.
bool is_reached()
{
    sockaddr_un address;
    struct stat now;
    return rvk::local::endpoint_address(own_identity, address) && lstat(address.sun_path, &now) == 0 &&
           now.st_dev == own_socket.st_dev && now.st_ino == own_socket.st_ino;
}

int try_to_bind(uint32_t identity, rvk::unique_fd& out)
{
    sockaddr_un address;
    if (!rvk::local::endpoint_address(identity, address)) { return ENAMETOOLONG; } // before a folder is made of it
    int error = rvk::local::create_endpoint_directory();
    if (error == 0) { error = rvk::local::bind_endpoint(identity, out); }
    if (error == 0 && lstat(address.sun_path, &own_socket) != 0) { error = errno; }
    return error;
}

} // namespace

int apipc_init(uint32_t identity, int)
{
    if (rvk::local::process_endpoint.load() >= 0) {
        rvk::log_print(LOG_HERE, "endpoint %08x refused: this process has one already\n",
                       static_cast<unsigned>(identity));
        return -1;
    }
    rvk::unique_fd fd;
    if (const int error = try_to_bind(identity, fd); error != 0) {
        log_refusal(identity, error);
        return -1;
    }
    rvk::local::force_large_send_buffer(fd.get());
    rvk::local::process_endpoint.store(fd.release());
    own_identity = identity;
    rvk::endpoint_is_reached = is_reached;
    return 0;
}
