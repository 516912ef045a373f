// The texts of everything that can keep a command from its answer stand here, one for each cause.
#include "rvkctl/session.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/clock.h"
#include "command/values.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <random>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace rvk::ctl {
namespace {

using std::chrono::milliseconds;

constexpr uint32_t low_bytes = 255; // of identities, 1 to 255: 0 is that of the module's own process
constexpr uint64_t retry_interval_ms = 1;
constexpr milliseconds alive_interval{250}; // how soon a wait notices that the daemon has ended, or that it is to end

// A report carries no sequence number, so none of ours is 0.
uint16_t next_seq(uint16_t seq) { return seq == UINT16_MAX ? uint16_t{1} : static_cast<uint16_t>(seq + 1); }

// Anywhere: an answer that is late for an earlier client with our identity should not carry a number of ours.
uint16_t first_seq()
{
    std::random_device source;
    return static_cast<uint16_t>(source() % UINT16_MAX);
}

std::vector<uint8_t> message_of(const request& command, uint32_t own, uint16_t seq)
{
    std::vector<uint8_t> out(message_head_bytes + command.payload.size());
    uint8_t* const m = out.data();
    store_le32(m + message::aptid, own);
    store_le32(m + message::length, static_cast<uint32_t>(command.payload.size()));
    store_le16(m + message::msg_class, static_cast<uint16_t>(data_class));
    store_le32(m + message::data_len, static_cast<uint32_t>(data_head_bytes + command.payload.size()));
    m[message::module] = static_cast<uint8_t>(own >> 8);
    m[message::id] = GetIdByIndex(0);
    m[message::code] = command.code;
    m[message::slot] = command.slot;
    store_le16(m + message::model, command.model);
    store_le16(m + message::seq, seq);
    store_le32(m + message::addr, command.addr);
    store_le16(m + message::len, command.len);
    std::copy(command.payload.begin(), command.payload.end(), m + message::payload);
    return out;
}

// False: not a message of the daemon's.
bool take_apart(std::span<const uint8_t> bytes, uint32_t daemon, answer& out)
{
    const uint8_t* const m = bytes.data();
    if (bytes.size() < message_head_bytes || load_le32(m + message::aptid) != daemon) { return false; }
    out.result = static_cast<int32_t>(load_le32(m + message::result));
    out.length = load_le32(m + message::length);
    out.code = m[message::code];
    out.slot = m[message::slot];
    out.model = load_le16(m + message::model);
    out.seq = load_le16(m + message::seq);
    out.addr = load_le32(m + message::addr);
    out.payload.assign(bytes.begin() + message::payload, bytes.end());
    return true;
}

// The daemon's word, without being asked, that a write to a card was given up.
bool is_failure_report(const answer& got) { return got.code == command::write_ack && got.result != 0 && got.seq == 0; }

bool is_greeting(const answer& got) { return got.code == command::greeting; }

bool answers(const answer& a, const request& command, uint16_t seq)
{
    const card_options& asked = command;
    return a.seq == seq && a.code == command.code && a == asked;
}

std::string socket_path(uint32_t identity)
{
    sockaddr_un address;
    return local::endpoint_address(identity, address) ? address.sun_path : local::endpoint_directory();
}

// 0 when there is no such file.
uint64_t socket_inode(uint32_t identity)
{
    struct stat status = {};
    return stat(socket_path(identity).c_str(), &status) == 0 ? status.st_ino : 0;
}

// Binds an identity of a module: the companion's own, by which it is known, or one with a low byte of 1 to 255 that is
// free. Each process starts its search elsewhere: an answer that is late for one client should not find the next in its
// place. Result: as bind_endpoint's.
int bind_identity(uint8_t board, uint8_t module, uint32_t& own, unique_fd& out)
{
    const uint32_t first = static_cast<uint32_t>(getpid()) % low_bytes;
    int error = EADDRINUSE;
    for (uint32_t i = 0; i < low_bytes && error == EADDRINUSE; ++i) {
        own = identity_of(board, module);
        if (module == module_companion) { return local::bind_endpoint(own, out); }
        own |= (first + i) % low_bytes + 1;
        error = local::bind_endpoint(own, out);
    }
    return error;
}

void check_interrupt()
{
    if (interrupted()) { fail(problem::interrupted, "interrupted while waiting for an answer"); }
}

[[noreturn]] void cannot_open(const settings& used, int error)
{
    const char* const folder = local::endpoint_directory();
    switch (error) {
    case ENOENT:
    case ENOTDIR:
        fail(problem::no_directory,
             "no directory %s: rvkd makes it when it starts; start rvkd, or set APIPC_DIR as it was for rvkd", folder);
    case ENAMETOOLONG:
        fail(problem::wrong_usage, "APIPC_DIR \"%s\" is too long for a socket address: set a shorter one, for rvkd too",
             folder);
    case EACCES:
    case EPERM:
        fail(problem::no_permission, "no permission to use %s: run as a user or group that may write to it", folder);
    case EADDRINUSE:
        fail(problem::identity_taken,
             "no identity of board %d, module 0x%02x is free (there %s): wait for other clients to end, or choose "
             "another with --as",
             used.board, used.module, used.module == module_companion ? "is one" : "are 255");
    default: fail(problem::endpoint_error, "no endpoint in %s: %s", folder, strerror(error));
    }
}

[[noreturn]] void cannot_send(const settings& used, const std::string& path, int error)
{
    static constexpr struct {
        int error;
        problem what;
        const char *before, *behind; // of the board and its socket
    } rows[] = {
        {ENOTDIR, problem::no_directory, "no directory any more for", "was rvkd's machine cleaned up?"},
        {ENOENT, problem::no_socket, "no socket of",
         "rvkd is not running for this board; start it, or choose the board with --board"},
        {ECONNREFUSED, problem::nobody_listening, "nobody is listening for", "rvkd has ended, start it again"},
        {EACCES, problem::no_permission, "no permission to send to", "run as a user or group that may write to it"},
        {EPERM, problem::no_permission, "no permission to send to", "run as a user or group that may write to it"},
        {EAGAIN, problem::queue_full, "no room in time in the queue of", "rvkd is busy or stopped, try later"},
    };
    if (error == ENOENT && access(local::endpoint_directory(), F_OK) != 0) { error = ENOTDIR; }
    const auto* const row = std::ranges::find(rows, error, [](const auto& r) { return r.error; });
    if (row != std::end(rows)) {
        fail(row->what, "%s board %d (%s): %s", row->before, used.board, path.c_str(), row->behind);
    }
    fail(problem::endpoint_error, "the command could not be sent to board %d (%s): %s", used.board, path.c_str(),
         strerror(error));
}

} // namespace

void note_command(const settings& used, uint8_t code, const char* meaning, outcome& run)
{
    const uint32_t daemon = identity_of(used.board, module_self);
    run.facts.update({{"board", used.board},
                      {"daemon_identity", daemon},
                      {"socket", socket_path(daemon)},
                      {"timeout_ms", used.timeout().count()},
                      {"code", code},
                      {"code_meaning", meaning}});
}

session::session(const settings& options, outcome& run)
    : used(options), daemon(identity_of(options.board, module_self)), daemon_socket(socket_inode(daemon)),
      last_seq(first_seq())
{
    if (const int error = bind_identity(used.board, used.module, own, endpoint); error != 0) {
        cannot_open(used, error);
    }
    socket_file = socket_path(own);
    run.facts["requester_identity"] = own;
}

session::~session() { unlink(socket_file.c_str()); } // before the socket goes: nobody takes over what is still alive

std::string session::greet()
{
    tell({{}, command::greeting});
    answer got;
    if (!wait_for(is_greeting, clock::now() + used.timeout(), got)) { no_answer(); }
    const size_t text_bytes = std::min(got.payload.size(), greeting_text_bytes);
    const auto text_end = std::find(got.payload.begin(), got.payload.begin() + static_cast<ptrdiff_t>(text_bytes), 0);
    return {got.payload.begin(), text_end};
}

void session::greet_patiently()
{
    clock::time_point asked{};
    answer got;
    wait_while_alive([&](milliseconds wait) {
        if (const auto now = clock::now(); now - asked >= used.timeout()) {
            tell({{}, command::greeting});
            asked = now;
        }
        return wait_for(is_greeting, clock::now() + wait, got);
    });
}

answer session::ask(const request& command, bool patiently)
{
    const uint16_t seq = tell(command);
    answer got;
    const auto comes_within = [&](milliseconds wait) {
        return wait_for([&](const answer& a) { return answers(a, command, seq); }, clock::now() + wait, got);
    };
    if (patiently) {
        wait_while_alive(comes_within);
    } else if (!comes_within(used.timeout())) {
        no_answer();
    }
    return got;
}

void session::wait_while_alive(const std::function<bool(milliseconds)>& done)
{
    const auto end = clock::now() + used.timeout();
    for (;;) {
        if (done(alive_interval)) { return; }
        check_interrupt();
        show_life(doing);
        if (used.timeout_ms && clock::now() >= end) { no_answer(); }
        if (!daemon_is_the_same()) {
            fail(problem::nobody_listening,
                 "board %d's daemon ended before the work did (%s): start it and repeat the command", used.board,
                 socket_path(daemon).c_str());
        }
    }
}

std::optional<uint32_t> session::reported_failure(uint32_t first, uint64_t bytes, milliseconds wait)
{
    const auto ours = [&](uint32_t addr) { return addr >= first && addr - first < bytes; };
    const auto known = std::find_if(failed_writes.begin(), failed_writes.end(), ours);
    if (known != failed_writes.end()) { return *known; }
    answer got;
    const auto wanted = [&](const answer& a) { return is_failure_report(a) && ours(a.addr); };
    return wait_for(wanted, clock::now() + wait, got) ? std::optional(got.addr) : std::nullopt;
}

bool session::write_is_answered(const request& command) const
{
    if (command.code != command::write_ack) { return false; }
    const bool companion = own == identity_of(used.board, module_companion);
    return companion || command.slot != 1 || command.model != 0 || (command.addr & 0xF0000000u) != 0;
}

uint16_t session::tell(const request& command)
{
    last_seq = next_seq(last_seq);
    const std::vector<uint8_t> message = message_of(command, own, last_seq);
    const auto end = clock::now() + used.timeout();
    int error = local::send_datagram(endpoint.get(), daemon, message);
    while (error == EAGAIN && clock::now() < end) {
        pause_ms(retry_interval_ms); // the own socket's readiness says nothing about the other's queue
        error = local::send_datagram(endpoint.get(), daemon, message);
    }
    if (error != 0) { cannot_send(used, socket_path(daemon), error); }
    return last_seq;
}

bool session::daemon_is_the_same() const
{
    return local::endpoint_alive(daemon) && socket_inode(daemon) == daemon_socket;
}

void session::no_answer() const
{
    fail(problem::no_answer, "board %d did not answer within %lld ms (%s): is a firmware update running? try later",
         used.board, static_cast<long long>(used.timeout().count()), socket_path(daemon).c_str());
}

bool session::wait_for(const std::function<bool(const answer&)>& wanted, clock::time_point end, answer& out)
{
    for (;;) {
        const auto left =
            std::clamp(std::chrono::ceil<milliseconds>(end - clock::now()), milliseconds{0}, alive_interval);
        const bool came = wait_readable(endpoint.get(), static_cast<uint64_t>(left.count()));
        const ssize_t bytes = came ? local::receive_datagram(endpoint.get(), incoming, MSG_DONTWAIT) : 0;
        if (bytes < 0 && errno != EAGAIN && errno != EINTR) {
            fail(problem::endpoint_error, "no answer can be received: %s", strerror(errno));
        }
        check_interrupt();
        show_life(doing);
        answer got;
        if (bytes > 0 && take_apart({incoming.bytes, static_cast<size_t>(bytes)}, daemon, got)) {
            if (wanted(got)) {
                out = std::move(got);
                return true;
            }
            if (is_failure_report(got)) { failed_writes.push_back(got.addr); }
        }
        if (clock::now() >= end) { return false; } // whatever else keeps coming
    }
}

} // namespace rvk::ctl
