// The messaging calls of platform.h, and the endpoints under them; see the header. Who may bind is decided under a lock
// on the endpoints' folder. Every call is weak, so that a test or a tool that defines it gets its own.
#include "platform/local/endpoint.h"

#include "base/bytes.h"
#include "base/clock.h"
#include "base/counters.h"
#include "main/log.h"
#include "platform/platform.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>

namespace rvk::local {

std::atomic<int> process_endpoint{-1};

namespace {

constexpr char default_directory[] = "/run/apipc";
constexpr size_t digits = 8, name_length = 13; // 0000003f.sock
constexpr int directory_lock_tries = 1000;     // 1 ms apart
constexpr int send_buffer_bytes = 256 << 20;   // a bound, not a reservation: many stuck peers with full queues
constexpr mode_t directory_mode = 03770, made_mode = 01770, socket_mode = 0660;

// Held while an endpoint is bound, so that nobody takes a socket file for stale that its owner has just made. On the
// folder itself: it needs no file of its own and ends with its holder. Bounded: a stopped holder must not stop a start.
int lock_directory(int folder)
{
    for (int left = directory_lock_tries; flock(folder, LOCK_EX | LOCK_NB) != 0; --left) {
        if (errno != EWOULDBLOCK || left == 0) { return errno; }
        pause_ms(1);
    }
    return 0;
}

const sockaddr* generic(const sockaddr_un& address) { return reinterpret_cast<const sockaddr*>(&address); }

// 0 when somebody is bound to the address, ENOENT without a file, ECONNREFUSED when the file is stale.
int probe(const sockaddr_un& address)
{
    const unique_fd fd{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!fd) { return errno; }
    return ::connect(fd.get(), generic(address), sizeof address) == 0 ? 0 : errno;
}

// Makes the address free to bind. Only a socket is ever removed: anything else was put there by mistake.
int clear_stale(const sockaddr_un& address)
{
    const int found = probe(address);
    if (found == ENOENT) { return 0; }
    if (found != ECONNREFUSED) { return EADDRINUSE; } // also one that we may not even write to
    struct stat entry {};
    if (::lstat(address.sun_path, &entry) != 0) { return errno; }
    if (!S_ISSOCK(entry.st_mode)) { return EEXIST; }
    if (::unlink(address.sun_path) == 0) { return 0; }
    return errno == EPERM ? EADDRINUSE : errno; // another user's, in a sticky folder
}

// Under the folder's lock. The umask is 0 for the bind: a chmod by name afterwards could be led elsewhere by a link.
int bind_alone(int fd, const sockaddr_un& address)
{
    if (const int error = clear_stale(address); error != 0) { return error; }
    if (::fchmod(fd, socket_mode) != 0) { return errno; }
    const mode_t before = ::umask(0);
    const int error = ::bind(fd, generic(address), sizeof address) == 0 ? 0 : errno;
    ::umask(before);
    return error;
}

// Without printf: it would be most of what a message costs here.
std::array<char, name_length + 1> socket_name(uint32_t identity)
{
    std::array<char, name_length + 1> name{"00000000.sock"};
    for (size_t i = digits; i-- > 0; identity >>= 4) { name[i] = "0123456789abcdef"[identity & 0xF]; }
    return name;
}

// The identity in a socket's name.
bool identity_in(const char* name, uint32_t& out)
{
    std::from_chars(name, name + strnlen(name, digits), out, 16);
    return strcmp(name, socket_name(out).data()) == 0;
}

// Whether every symbolic link in a path is root's. Writes into the path, and restores it.
bool has_only_links_of_root(char* path)
{
    for (char* end = path; *end != '\0'; ++end) {
        if (end[1] != '/' && end[1] != '\0') { continue; }
        const char next = std::exchange(end[1], '\0');
        struct stat entry {};
        const bool is_others = ::lstat(path, &entry) != 0 || (S_ISLNK(entry.st_mode) && entry.st_uid != 0);
        end[1] = next;
        if (is_others) { return false; }
    }
    return true;
}

// Whether a socket lies in our folder, however spelled, and is no symbolic link, which an answer would follow; one that
// is gone may have lain there. name: the last part of its path.
bool is_in_our_folder(const char* path, const char* name)
{
    using status = struct stat;
    status entry{}, its{}, ours{};
    if (::lstat(path, &entry) == 0 && !S_ISSOCK(entry.st_mode)) { return false; }
    char folder[sizeof(sockaddr_un::sun_path) + 1] = ".";
    if (name != path) { *std::copy(path, name - 1, folder) = '\0'; }
    if (strcmp(folder, endpoint_directory()) == 0) { return true; } // nearly always
    return has_only_links_of_root(folder) && ::stat(folder, &its) == 0 && ::stat(endpoint_directory(), &ours) == 0 &&
           its.st_dev == ours.st_dev && its.st_ino == ours.st_ino;
}

// Whether a sender is bound to an identity in our folder. from: zero where the kernel wrote nothing.
bool is_endpoint(const sockaddr_un& from, uint32_t& identity)
{
    char path[sizeof from.sun_path + 1] = ""; // the terminator of one that fills sun_path stands behind it
    std::ranges::copy(from.sun_path, path);
    const char* const slash = strrchr(path, '/');
    const char* const name = slash != nullptr ? slash + 1 : path;
    return identity_in(name, identity) && is_in_our_folder(path, name);
}

// Whether a message begins with its sender's identity. Where the sender's socket lies is looked up once a second of one
// that sends again: it costs as much as all else here, and may be another place right afterwards anyway.
bool names_its_sender(std::span<const uint8_t> message, const sockaddr_un& from)
{
    thread_local struct {
        sockaddr_un from;
        uint32_t identity, looked_us;
    } last{};
    const uint32_t now_us = monotonic_us();
    if (last.from.sun_family == 0 || now_us - last.looked_us >= 1'000'000 ||
        memcmp(&from, &last.from, sizeof from) != 0) {
        last = {{}, 0, now_us};
        if (!is_endpoint(from, last.identity)) {
            log_print(LOG_HERE, "message of %zu bytes dropped: its sender's socket \"%s\" is no endpoint in %s\n",
                      message.size(), printable({from.sun_path, strnlen(from.sun_path, sizeof from.sun_path)}).text,
                      endpoint_directory());
            return false;
        }
        last.from = from;
    }
    const uint32_t claimed = message.size() < sizeof claimed ? 0 : load_le32(message.data());
    if (claimed == last.identity && message.size() >= sizeof claimed) { return true; }
    log_print(LOG_HERE, "message of %zu bytes dropped: it names %08x as its sender, but came from %08x\n",
              message.size(), claimed, last.identity);
    return false;
}

// What to do about it, where the bare error would not say so.
void log_refusal(uint32_t identity, int error)
{
    const char* reason = error == EADDRINUSE     ? "another process is bound to it, or another user's left it behind"
                         : error == ENAMETOOLONG ? "the folder's name is too long for a socket, set a shorter APIPC_DIR"
                         : error == EWOULDBLOCK  ? "another process has kept the folder locked for a second"
                         : error == EEXIST       ? "a file that is not a socket has its name, remove it"
                                                 : strerror(error);
    log_print(LOG_HERE, "endpoint %08x in %s refused: %s\n", identity, endpoint_directory(), reason);
}

sockaddr_un own_address; // of the process's endpoint: a peer's differs in the name alone
struct stat own_socket;  // its file, as it was bound

// Whether the socket's file is still there, and not another's.
bool is_reached()
{
    struct stat now;
    return lstat(own_address.sun_path, &now) == 0 && now.st_dev == own_socket.st_dev && now.st_ino == own_socket.st_ino;
}

// Creates the folder, mode 3770 (1770 where set-group-ID is refused), when it is missing; its parent must exist.
int create_endpoint_directory()
{
    // Without set-group-ID: a sandbox refuses that of any mkdir, also of a folder that is there.
    if (::mkdir(endpoint_directory(), made_mode) != 0) { return errno == EEXIST ? 0 : errno; }
    for (const mode_t mode : {made_mode, directory_mode}) { static_cast<void>(::chmod(endpoint_directory(), mode)); }
    return 0;
}

int try_to_bind(uint32_t identity, unique_fd& out)
{
    if (!endpoint_address(identity, own_address)) { return ENAMETOOLONG; } // before a folder is made of it
    int error = create_endpoint_directory();
    if (error == 0) { error = bind_endpoint(identity, out); }
    if (error == 0 && lstat(own_address.sun_path, &own_socket) != 0) { error = errno; }
    return error;
}

int send_to(int fd, const sockaddr_un& address, std::span<const uint8_t> message)
{
    if (message.size() > datagram_bytes_max) { return EMSGSIZE; }
    const ssize_t sent = TEMP_FAILURE_RETRY(
        ::sendto(fd, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL, generic(address), sizeof address));
    return sent >= 0 ? 0 : errno;
}

// The most that may lie unread at this socket's peers: unread datagrams are charged to their sender.
void force_large_send_buffer(int fd)
{
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDBUFFORCE, &send_buffer_bytes, sizeof send_buffer_bytes) == 0) { return; }
    // Without the privilege, as much as everybody may have.
    static_cast<void>(::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &send_buffer_bytes, sizeof send_buffer_bytes));
}

constexpr uint64_t first_pause_ms = 10, longest_pause_ms = 1000;
// The waiting, real-time thread's own: the pause between errors grows while they last, or it would spin.
receive_buffer incoming;
uint64_t next_pause_ms = 0; // 0 while all is well

void back_off(int error)
{
    if (next_pause_ms == 0) {
        log_print(LOG_HERE, "no messages can be received: %s; trying on\n", strerror(error));
        next_pause_ms = first_pause_ms;
    }
    pause_ms(next_pause_ms);
    next_pause_ms = std::min(next_pause_ms * 2, longest_pause_ms);
}

} // namespace

const char* endpoint_directory()
{
    const char* named = getenv("APIPC_DIR");
    return named != nullptr && *named != '\0' ? named : default_directory;
}

bool endpoint_address(uint32_t identity, sockaddr_un& out)
{
    out = {};
    out.sun_family = AF_UNIX;
    const std::string_view folder = endpoint_directory();
    if (folder.size() + 1 + name_length >= sizeof out.sun_path) { return false; }
    char* const end = std::ranges::copy(folder, out.sun_path).out;
    *end = '/';
    std::ranges::copy(socket_name(identity), end + 1);
    return true;
}

int bind_endpoint(uint32_t identity, unique_fd& out)
{
    sockaddr_un address;
    if (!endpoint_address(identity, address)) { return ENAMETOOLONG; }
    unique_fd fd{::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
    if (!fd) { return errno; }
    const unique_fd folder{::open(endpoint_directory(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)};
    if (!folder) { return errno; }
    if (const int error = lock_directory(folder.get()); error != 0) { return error; }
    const int error = bind_alone(fd.get(), address);
    // By name: a child that is between its fork and its exec may still hold the descriptor.
    flock(folder.get(), LOCK_UN);
    if (error != 0) { return error; }
    out = std::move(fd);
    return 0;
}

bool endpoint_alive(uint32_t identity)
{
    sockaddr_un address;
    if (!endpoint_address(identity, address)) { return false; }
    const int found = probe(address);
    return found == 0 || found == EACCES || found == EPERM;
}

int send_datagram(int fd, uint32_t identity, std::span<const uint8_t> message)
{
    sockaddr_un address;
    return endpoint_address(identity, address) ? send_to(fd, address, message) : ENAMETOOLONG;
}

ssize_t receive_datagram(int fd, receive_buffer& buffer, int flags)
{
    sockaddr_un from{};
    socklen_t from_length = sizeof from;
    const ssize_t received = ::recvfrom(fd, buffer.bytes, sizeof buffer.bytes, flags | MSG_TRUNC,
                                        reinterpret_cast<sockaddr*>(&from), &from_length);
    if (received < 0) { return -1; }
    const size_t length = static_cast<size_t>(received);
    if (length > datagram_bytes_max) {
        log_print(LOG_HERE, "message of %zu bytes dropped: at most %zu are allowed\n", length, datagram_bytes_max);
        return 0;
    }
    if (names_its_sender({buffer.bytes, length}, from)) { return received; }
    daemon_count.refused[refusal::wrong_sender].add();
    return 0;
}

} // namespace rvk::local

using namespace rvk;
using namespace rvk::local;

[[gnu::weak]] int apipc_init(uint32_t identity, int)
{
    if (process_endpoint.load() >= 0) {
        log_print(LOG_HERE, "endpoint %08x refused: this process has one already\n", static_cast<unsigned>(identity));
        return -1;
    }
    unique_fd fd;
    if (const int error = try_to_bind(identity, fd); error != 0) {
        log_refusal(identity, error);
        return -1;
    }
    force_large_send_buffer(fd.get());
    process_endpoint.store(fd.release());
    endpoint_is_reached = is_reached;
    return 0;
}

[[gnu::weak]] int apipc_loop_wait(int, apipc_callback callback)
{
    for (;;) {
        const ssize_t received = receive_datagram(process_endpoint.load(), incoming, 0);
        if (received < 0 && errno == EINTR) { continue; }
        if (received < 0) {
            back_off(errno);
            return -1;
        }
        if (std::exchange(next_pause_ms, 0) != 0) { log_print(LOG_HERE, "messages are received again\n"); }
        if (received > 0) { callback(0, 0, incoming.bytes, static_cast<int>(received)); }
    }
}

[[gnu::weak]] int apipc_send(uint32_t destination, const void* message, uint32_t bytes)
{
    sockaddr_un to = own_address;
    char* const slash = strrchr(to.sun_path, '/');
    if (slash == nullptr) { return -EBADF; } // this process has no endpoint
    std::ranges::copy(socket_name(destination), slash + 1);
    return -send_to(process_endpoint.load(), to, {static_cast<const uint8_t*>(message), bytes});
}
