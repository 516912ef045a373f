// Pictures into card memory and back, and firmware, through the daemon's file service. A put and an update are answered
// when they are over; of a get only the two files tell that. What of it the card acknowledged, the daemon's figures
// say.
#include "rvkctl/commands.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/fd.h"
#include "base/picture.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <string>
#include <string_view>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace rvk::ctl {
namespace {

constexpr std::chrono::seconds missing_after{1};      // the daemon opens the second file at once after the first
constexpr std::chrono::seconds both_missing_after{5}; // and the first at once, but a disk may be asleep
constexpr std::chrono::seconds at_rest{1};            // a file that nobody has written to for so long is complete
constexpr uint32_t watched_events = IN_OPEN | IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE;

// Waits until another process has written two files and closed them. The folders are watched, not the files: those may
// not be there yet.
class file_watch {
public:
    // A file and the size that it is to have, in bytes.
    struct expected {
        std::string path;
        uint64_t bytes;
    };

    // From now on. The files' folders must exist; throws a failure.
    file_watch(const expected& first, const expected& second);

    // To be called when the other process has begun.
    void begun() { last_event = clock::now(); }

    // Waits for a while. Result: whether both were closed after writing. Throws a failure when one was closed and
    // nothing has opened the other for a second, or when nothing has opened either for five: it could not be opened.
    bool both_closed(std::chrono::milliseconds wait);

private:
    using clock = std::chrono::steady_clock;

    struct watched {
        std::string path, name{};
        uint64_t bytes = 0;
        int folder = -1;
        bool opened = false, closed = false;
    };

    void note(const char* events, size_t bytes);
    void look_at_the_files();
    void check_for_a_missing_one() const;
    void check_for_missing_ones() const;

    unique_fd fd;
    std::array<watched, 2> files;
    clock::time_point last_event = clock::now();
    bool missed_events = false;
};

file_watch::file_watch(const expected& first, const expected& second)
    : fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)), files{{{.path = first.path, .bytes = first.bytes},
                                                          {.path = second.path, .bytes = second.bytes}}}
{
    for (watched& file : files) {
        const std::filesystem::path whole = file.path;
        file.name = whole.filename().string();
        file.folder = inotify_add_watch(fd.get(), whole.parent_path().c_str(), watched_events | IN_ONLYDIR);
        if (file.folder < 0) {
            throw failure{problem::wrong_usage,
                          "folder \"" + whole.parent_path().string() + "\" cannot be used: " + strerror(errno)};
        }
    }
}

bool file_watch::both_closed(std::chrono::milliseconds wait)
{
    pollfd poll_for{fd.get(), POLLIN, 0};
    if (poll(&poll_for, 1, static_cast<int>(wait.count())) > 0) {
        alignas(inotify_event) char events[4096];
        const ssize_t got = read(fd.get(), events, sizeof events);
        if (got > 0) { note(events, static_cast<size_t>(got)); }
    }
    if (missed_events) { look_at_the_files(); }
    if (files[0].closed && files[1].closed) { return true; }
    check_for_a_missing_one();
    check_for_missing_ones();
    return false;
}

void file_watch::note(const char* events, size_t bytes)
{
    for (size_t at = 0; at + sizeof(inotify_event) <= bytes;) {
        inotify_event event;
        memcpy(&event, events + at, sizeof event);
        const char* name = event.len == 0 ? "" : events + at + sizeof event;
        if ((event.mask & IN_Q_OVERFLOW) != 0) { missed_events = true; }
        for (watched& file : files) {
            if (event.wd != file.folder || file.name != name) { continue; }
            file.opened = true;
            file.closed = file.closed || (event.mask & IN_CLOSE_WRITE) != 0;
            last_event = clock::now();
        }
        at += sizeof event + event.len;
    }
}

// A folder in which more happened than the kernel keeps events of (this process was stopped meanwhile, say).
void file_watch::look_at_the_files()
{
    for (watched& file : files) {
        struct stat status = {};
        timespec now = {};
        clock_gettime(CLOCK_REALTIME, &now);
        if (stat(file.path.c_str(), &status) != 0) { continue; }
        file.opened = true;
        const bool whole = static_cast<uint64_t>(status.st_size) == file.bytes;
        file.closed = file.closed || (whole && now.tv_sec - status.st_mtim.tv_sec > at_rest.count());
    }
}

void file_watch::check_for_a_missing_one() const
{
    const auto closed = std::find_if(files.begin(), files.end(), [](const watched& f) { return f.closed; });
    const auto missing = std::find_if(files.begin(), files.end(), [](const watched& f) { return !f.opened; });
    if (closed == files.end() || missing == files.end() || clock::now() - last_event < missing_after) { return; }
    throw failure{problem::refused, "the daemon could not open \"" + missing->path + "\": see rvkd's log"};
}

void file_watch::check_for_missing_ones() const
{
    if (files[0].opened || files[1].opened || clock::now() - last_event < both_missing_after) { return; }
    throw failure{problem::refused, "the daemon opened neither \"" + files[0].path + "\" nor \"" + files[1].path +
                                        "\": can files be made there? see rvkd's log"};
}

constexpr uint64_t file_bytes_max = INT32_MAX; // daemon: it takes no larger one
using namespace update_type;

struct type_name {
    const char* name;
    uint8_t type;
};
constexpr type_name names[] = {
    {"mcu-input", mcu_input},
    {"mcu-output", mcu_output},
    {"mcu-vpu", mcu_vpu},
    {"fpga-input", fpga_input},
    {"fpga-1a", 0x1A},
    {"fpga-1b", 0x1B},
    {"fpga-input-golden", fpga_input_golden},
    {"fpga-1d", 0x1D},
    {"fpga-1e", fpga_last},
};

// Numbers in front of a path, which ends with a zero.
std::vector<uint8_t> payload_of(std::initializer_list<uint32_t> numbers, const std::string& path)
{
    std::vector<uint8_t> out(numbers.size() * 4 + path.size() + 1);
    size_t at = 0;
    for (const uint32_t number : numbers) { store_le32(&out[4 * at++], number); }
    std::copy(path.begin(), path.end(), &out[4 * at]);
    return out;
}

request request_of(uint8_t code, const card_options& card, std::span<const uint8_t> payload)
{
    return {.code = code,
            .slot = card.slot,
            .model = card.model,
            .addr = card.addr,
            .len = static_cast<uint16_t>(payload.size()),
            .payload = payload};
}

void note_picture(const picture_options& options, outcome& run)
{
    run.facts["hor"] = options.size.hor;
    run.facts["ver"] = options.size.ver;
    run.facts["data_bytes"] = picture_bytes(options.size);
}

[[noreturn]] void refuse_file(const char* kind, const std::string& path, const std::string& why)
{
    throw failure{problem::wrong_usage, format("%s \"%s\" %s", kind, path.c_str(), why.c_str())};
}

// Result: its size. Throws a failure when the daemon will not take it.
uint64_t check_file(const char* kind, const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        refuse_file(kind, path, std::string("cannot be used: ") + strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) { refuse_file(kind, path, "is not a regular file"); }
    const auto bytes = static_cast<uint64_t>(status.st_size);
    if (bytes > file_bytes_max) {
        refuse_file(kind, path,
                    format("has %s: at most %s", byte_count(bytes).c_str(), byte_count(file_bytes_max).c_str()));
    }
    return bytes;
}

// Where a picture's pixels begin in its file; 0 of a .bmp that is none.
uint64_t pixels_at(const std::string& path)
{
    if (!path.ends_with(".bmp")) { return 0; }
    uint8_t head[bmp::pixels_at_end] = {};
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(head), sizeof head);
    return head[0] == 'B' && head[1] == 'M' ? load_le32(head + bmp::pixels_at) : 0;
}

// The daemon answers "done" for the black picture that it writes in a bad file's place, so the file is looked at first.
void check_picture(const std::string& path, const picture_options& options)
{
    const uint64_t bytes = check_file("picture", path), offset = pixels_at(path);
    if (path.ends_with(".bmp") && offset == 0) {
        refuse_file("picture", path, "is no BMP file: give one, or raw pixels under another name");
    }
    const uint64_t wanted = offset + picture_bytes(options.size);
    if (bytes >= wanted) { return; }
    refuse_file("picture", path,
                format("has %s, %u x %u pixels need %llu: check --size", byte_count(bytes).c_str(), options.size.hor,
                       options.size.ver, static_cast<unsigned long long>(wanted)));
}

// The same of an image, and of its name, which for an FPGA has a marker, and for a microcontroller is plain.
uint64_t check_image(const std::string& path, uint8_t type)
{
    const uint64_t bytes = check_file("image", path);
    if (bytes == 0) { refuse_file("image", path, "is empty"); }
    const auto has = [&](const char* part) { return path.find(part) != path.npos; };
    if (type > mcu_vpu && !has(".bin") && !has(".BIN") && !has(".Bin")) {
        refuse_file("image", path, "must have .bin, .BIN or .Bin in its name, as an FPGA's has");
    }
    if (type <= mcu_vpu && !is_plain_path(path)) {
        refuse_file("image", path,
                    "needs a path of letters, digits and /._+-=,@%: alone, and a name without '-' in front");
    }
    return bytes;
}

// Calls the job; when a signal ends the wait for it, says what goes on.
template <typename Job>
void waited(const char* what, Job job)
{
    try {
        job();
    } catch (failure& failed) {
        if (failed.what == problem::interrupted) {
            failed.text += format("; rvkd goes on with the %s: rvkctl status shows how far it is", what);
        }
        throw;
    }
}

// What the daemon's figures say of a job that is over, in words. Throws a failure when the card left steps unanswered.
std::string acknowledged(const char* job, const session& talk, uint16_t number, const settings& used,
                         const std::string& what, outcome& run)
{
    const std::optional<job_figures> figures = figures_of_job(job, used.board, talk.identity(), number);
    if (!figures) { return "sent; no figures of rvkd's say whether the card answered"; }
    run.facts["card_exchanges"] = figures->steps;
    run.facts["card_unanswered"] = figures->unanswered;
    if (figures->unanswered == 0) { return "acknowledged by the card"; }
    throw failure{
        problem::no_answer,
        format("%s: the card left %llu of %llu exchanges unanswered: is it there, is the link up? see rvkd's log",
               what.c_str(), static_cast<unsigned long long>(figures->unanswered),
               static_cast<unsigned long long>(figures->steps))};
}

// A path that ends short: both files of a get must have their whole length.
void check_length(const file_watch::expected& file)
{
    const uint64_t bytes = file_bytes(file.path);
    if (bytes == file.bytes) { return; }
    throw failure{problem::refused,
                  format("\"%s\" has %s and should have %llu: is the disk full? see rvkd's log", file.path.c_str(),
                         byte_count(bytes).c_str(), static_cast<unsigned long long>(file.bytes))};
}

// The daemon writes into regular files only.
void check_target(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) { return; } // missing: the daemon makes it
    throw failure{problem::wrong_usage, "\"" + path + "\" is there and not a regular file: choose another BASE"};
}

// A microcontroller's result is the programming tool's, as a shell reports it.
std::string update_failure(uint8_t type, int32_t result)
{
    if (type > mcu_vpu) { return "the card refused it, or the daemon could not copy it"; }
    if (result < 0) { return "the programming tool could not be run, or still runs for another request"; }
    if (WIFEXITED(result) && WEXITSTATUS(result) == 127) { return "the programming tool is not there (status 127)"; }
    if (WIFEXITED(result)) { return format("the programming tool ended with status %d", WEXITSTATUS(result)); }
    return format("the programming tool ended by signal %d", WTERMSIG(result));
}

std::string name_of(uint8_t type)
{
    const auto* const row =
        std::find_if(std::begin(names), std::end(names), [&](const type_name& n) { return n.type == type; });
    return row->name;
}

} // namespace

uint8_t update_type_in(const std::string& text)
{
    for (const type_name& row : names) {
        if (text == row.name) { return row.type; }
    }
    try {
        return static_cast<uint8_t>(number_in("--type", text, mcu_input, fpga_last));
    } catch (const failure&) {
        throw failure{problem::wrong_usage,
                      "--type \"" + text + "\": give a name or its number: " + update_type_names()};
    }
}

std::string update_type_names()
{
    std::string out;
    for (const type_name& row : names) { out += format("%s%s (0x%02x)", out.empty() ? "" : ", ", row.name, row.type); }
    return out;
}

void run_picture_put(const settings& used, const picture_options& options, outcome& run)
{
    const std::string path = absolute_path(options.file, "FILE", picture_path_max);
    note_request(used, options, command::file_write, "picture into card memory", run);
    note_picture(options, run);
    run.facts["buffer"] = options.addr;
    run.facts["file"] = path;
    check_picture(path, options);
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    talk.greet();
    const stop_watch watch;
    const auto payload = payload_of({options.size.hor, options.size.ver}, path);
    answer got;
    talk.doing = [] { return transfer_text(); };
    waited("picture", [&] { got = talk.ask(request_of(command::file_write, options, payload), true); });
    note_result(got.result, run.facts);
    run.facts["elapsed_s"] = watch.seconds();
    if (got.result != 0) {
        throw failure{problem::refused,
                      format("picture \"%s\" was not written (result %d): see rvkd's log", path.c_str(), got.result)};
    }
    const std::string rate = rate_text(picture_bytes(options.size), watch.seconds());
    const std::string what =
        format("picture of %u x %u into buffer %u", options.size.hor, options.size.ver, options.addr);
    run.answer = what + " " + acknowledged("picture_write", talk, got.seq, used, what, run) + ": " + rate;
}

void run_picture_get(const settings& used, const picture_options& options, outcome& run)
{
    const std::string base = absolute_path(options.file, "BASE", read_back_path_max);
    const file_watch::expected raw{base, picture_bytes(options.size)};
    const file_watch::expected image{(base + ".bmp").substr(0, image_name_max), raw.bytes + bmp::head_bytes};
    note_request(used, options, command::file_read, "card memory into files", run);
    note_picture(options, run);
    run.facts["addr"] = options.addr;
    run.facts["raw_file"] = raw.path;
    run.facts["image_file"] = image.path;
    check_target(raw.path);
    check_target(image.path);
    if (raw.path == image.path) {
        throw failure{problem::wrong_usage, format("BASE \"%s\": with %zu characters both files would be one; choose a "
                                                   "shorter name",
                                                   base.c_str(), base.size())};
    }
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    talk.greet();
    const stop_watch watch;
    file_watch files(raw, image);
    const auto payload = payload_of({options.size.hor, options.size.ver}, base);
    const uint16_t number = talk.tell(request_of(command::file_read, options, payload));
    talk.doing = [] { return transfer_text(); };
    waited("read-back", [&] {
        talk.greet_patiently(); // handled in their order: the job is in the daemon's hands now, or behind no others
                                // more
        files.begun();
        talk.wait_while_alive([&](std::chrono::milliseconds wait) { return files.both_closed(wait); });
    });
    run.facts["elapsed_s"] = watch.seconds();
    check_length(raw);
    check_length(image);
    const std::string what = format("picture of %u x %u read into %s and %s", options.size.hor, options.size.ver,
                                    raw.path.c_str(), image.path.c_str());
    const std::string rate = rate_text(raw.bytes, watch.seconds());
    run.answer = what + ", " + acknowledged("read_back", talk, number, used, what, run) + ": " + rate;
}

void run_update(const settings& used, const update_options& options, outcome& run)
{
    const std::string path = absolute_path(options.file, "FILE", update_path_max);
    note_request(used, options, command::update, "firmware update", run);
    run.facts["type"] = options.type;
    run.facts["type_meaning"] = name_of(options.type);
    run.facts["file"] = path;
    const uint64_t bytes = check_image(path, options.type);
    run.facts["data_bytes"] = bytes;
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    talk.greet();
    const stop_watch watch;
    const auto payload = payload_of({options.type}, path);
    const bool by_tool = options.type <= mcu_vpu;
    answer got;
    talk.doing = [by_tool] { return by_tool ? "the programming tool runs" : transfer_text(); };
    waited("update", [&] { got = talk.ask(request_of(command::update, options, payload), true); });
    note_result(got.result, run.facts);
    run.facts["elapsed_s"] = watch.seconds();
    const std::string what = format("slot %d, image \"%s\"", options.slot, path.c_str());
    const std::string rate = rate_text(bytes, watch.seconds());
    const std::string said = by_tool ? "" : acknowledged("update", talk, got.seq, used, "update of " + what, run);
    if (got.result != 0) {
        throw failure{problem::refused, format("update of %s failed (result %d): %s; see rvkd's log", what.c_str(),
                                               got.result, update_failure(options.type, got.result).c_str())};
    }
    run.answer = format("slot %d updated (%s)%s%s: ", options.slot, name_of(options.type).c_str(), by_tool ? "" : ", ",
                        said.c_str()) +
                 rate;
}

} // namespace rvk::ctl
