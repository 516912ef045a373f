// Pictures into card memory and back, and firmware, through the daemon's file service. A put and an update are answered
// when they are over; of a get only the two files tell that. What of it the card acknowledged, the daemon's figures
// say.
#include "rvkctl/commands.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/clock.h"
#include "base/fd.h"
#include "base/picture.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <sys/wait.h>

namespace rvk::ctl {
namespace {

constexpr std::chrono::seconds missing_after{1};      // the daemon opens the second file at once after the first
constexpr std::chrono::seconds both_missing_after{5}; // and the first at once, but a disk may be asleep
constexpr std::chrono::seconds at_rest{1};            // a file that nobody has written to for so long is complete

struct job_file {
    std::string path;
    uint64_t bytes; // that it is to have
    bool opened = false, closed = false;
};

// Waits until another process has written two files of one folder and closed them. The folder is watched, not the
// files: those may not be there yet.
struct file_watch {
    using clock = std::chrono::steady_clock;

    std::array<job_file, 2> files;
    unique_fd events{inotify_init1(IN_CLOEXEC | IN_NONBLOCK)};
    clock::time_point last_event = clock::now(); // or the time when the other process began
    bool missed_events = false;

    // The folder must exist; fails.
    void begin()
    {
        const std::string folder = std::filesystem::path(files[0].path).parent_path().string();
        constexpr uint32_t watched = IN_OPEN | IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE | IN_ONLYDIR;
        if (inotify_add_watch(events.get(), folder.c_str(), watched) >= 0) { return; }
        if (!events || errno == ENOSPC) { // the system's limits; the folder may be good
            fail(problem::io_error, "folder \"%s\" cannot be watched: see sysctl fs.inotify", folder.c_str());
        }
        fail(problem::wrong_usage, "folder \"%s\" cannot be used: %s", folder.c_str(), strerror(errno));
    }

    // Waits for a while. Result: whether both were closed after writing. Fails when one was closed and nothing has
    // opened the other for a second, or when nothing has opened either for five: it could not be opened.
    bool both_closed(std::chrono::milliseconds wait)
    {
        alignas(inotify_event) char bytes[4096];
        if (wait_readable(events.get(), static_cast<uint64_t>(wait.count()))) {
            const ssize_t got = read(events.get(), bytes, sizeof bytes);
            if (got > 0) { note(bytes, static_cast<size_t>(got)); }
        }
        if (missed_events) { look_at_the_files(); }
        if (files[0].closed && files[1].closed) { return true; }
        check_for_missing_ones();
        return false;
    }

    void note(const char* bytes, size_t count)
    {
        inotify_event event;
        for (size_t at = 0; at + sizeof event <= count; at += sizeof event + event.len) {
            memcpy(&event, bytes + at, sizeof event);
            const std::string name = event.len == 0 ? "" : bytes + at + sizeof event;
            missed_events |= (event.mask & IN_Q_OVERFLOW) != 0;
            for (job_file& file : files) {
                if (!file.path.ends_with("/" + name)) { continue; }
                file.opened = true;
                file.closed = file.closed || (event.mask & IN_CLOSE_WRITE) != 0;
                last_event = clock::now();
            }
        }
    }

    // A folder in which more happened than the kernel keeps events of (this process was stopped meanwhile, say).
    void look_at_the_files()
    {
        for (job_file& file : files) {
            struct stat status = {};
            if (stat(file.path.c_str(), &status) != 0) { continue; }
            file.opened = true;
            const bool whole = static_cast<uint64_t>(status.st_size) == file.bytes;
            file.closed = file.closed || (whole && time(nullptr) - status.st_mtim.tv_sec > at_rest.count());
        }
    }

    void check_for_missing_ones() const
    {
        const auto quiet = clock::now() - last_event;
        for (size_t i = 0; i < files.size(); ++i) {
            if (files[i].opened || !files[1 - i].closed || quiet < missing_after) { continue; }
            fail(problem::refused, "the daemon could not open \"%s\": see rvkd's log", files[i].path.c_str());
        }
        if (files[0].opened || files[1].opened || quiet < both_missing_after) { return; }
        fail(problem::refused, "the daemon opened neither \"%s\" nor \"%s\": can files be made there? see rvkd's log",
             files[0].path.c_str(), files[1].path.c_str());
    }
};

constexpr uint64_t file_bytes_max = INT32_MAX; // daemon: of pictures; ours of images
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

request order_of(uint8_t code, const card_options& card, std::span<const uint8_t> payload)
{
    return {card, code, static_cast<uint16_t>(payload.size()), payload};
}

void note_picture(const picture_options& options, outcome& run)
{
    run.facts.update(
        {{"hor", options.size.hor}, {"ver", options.size.ver}, {"data_bytes", picture_bytes(options.size)}});
}

[[noreturn]] void refuse_file(const char* kind, const std::string& path, const std::string& why)
{
    fail(problem::wrong_usage, "%s \"%s\" %s", kind, path.c_str(), why.c_str());
}

// Result: its size. Fails when the daemon will not take it.
uint64_t check_file(const char* kind, const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        refuse_file(kind, path, std::string("cannot be used: ") + strerror(errno));
    }
    if (!S_ISREG(status.st_mode)) { refuse_file(kind, path, "is not a regular file"); }
    const auto bytes = static_cast<uint64_t>(status.st_size);
    if (bytes <= file_bytes_max) { return bytes; }
    refuse_file(kind, path, "has " + byte_count(bytes) + ": at most " + byte_count(file_bytes_max));
}

// The daemon answers "done" for the black picture that it writes in a bad file's place, so the file is looked at first.
void check_picture(const std::string& path, const picture_options& options)
{
    const uint64_t bytes = check_file("picture", path);
    uint64_t wanted = picture_bytes(options.size);
    if (path.ends_with(".bmp")) {
        const unique_fd file = open_regular(path.c_str(), O_RDONLY);
        if (!file) { refuse_file("picture", path, std::string("cannot be read: ") + open_failure()); }
        std::array<uint8_t, bmp::pixels_at_end> head{};
        static_cast<void>(read_full(file, head)); // a short one has no offset of its pixels
        const uint32_t pixels_at = head[0] == 'B' && head[1] == 'M' ? load_le32(&head[bmp::pixels_at]) : 0;
        if (pixels_at == 0) {
            refuse_file("picture", path, "is no BMP file: give one, or raw pixels under another name");
        }
        wanted += pixels_at;
    }
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

// A job in the daemon's hands: what it is called, where its figures stand, what it is told.
struct file_job {
    const char* name;
    const char* figures; // their name in the daemon's status
    request order;
};

// Calls `wait`, and says what goes on when a signal ends it.
template <typename Wait>
void waited(const file_job& job, Wait wait)
{
    try {
        wait();
    } catch (failure& failed) {
        if (failed.what == problem::interrupted) {
            failed.text += format("; rvkd goes on with the %s: rvkctl status shows how far it is", job.name);
        }
        throw;
    }
}

// Has a job done that is answered at its end.
answer done(session& talk, const file_job& job, outcome& run)
{
    talk.greet();
    const stop_watch watch;
    answer got;
    waited(job, [&] { got = talk.ask(job.order, true); });
    note_result(got.result, run.facts);
    run.facts["elapsed_s"] = watch.seconds();
    return got;
}

// What the daemon's figures say of a job that is over, in words. Fails when the card left steps unanswered.
std::string acknowledged(const file_job& job, const session& talk, uint16_t number, const settings& used,
                         const std::string& what, outcome& run)
{
    const std::optional<job_figures> figures = figures_of_job(job.figures, used.board, talk.identity(), number);
    if (!figures) { return "sent; no figures of rvkd's say whether the card answered"; }
    run.facts.update({{"card_exchanges", figures->steps}, {"card_unanswered", figures->unanswered}});
    if (figures->unanswered == 0) { return "acknowledged by the card"; }
    fail(problem::no_answer,
         "%s: the card left %llu of %llu exchanges unanswered: is it there, is the link up? see rvkd's log",
         what.c_str(), static_cast<unsigned long long>(figures->unanswered),
         static_cast<unsigned long long>(figures->steps));
}

// Fails when a file of a get has not the length that it should have.
void check_length(const job_file& file)
{
    const uint64_t bytes = file_bytes(file.path);
    if (bytes == file.bytes) { return; }
    fail(problem::refused, "\"%s\" has %s and should have %llu: is the disk full? see rvkd's log", file.path.c_str(),
         byte_count(bytes).c_str(), static_cast<unsigned long long>(file.bytes));
}

// The daemon writes into regular files only.
void check_target(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) { return; } // missing: the daemon makes it
    fail(problem::wrong_usage, "\"%s\" is there and not a regular file: choose another BASE", path.c_str());
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

} // namespace

uint8_t update_type_in(const std::string& text)
{
    for (const type_name& row : names) {
        if (text == row.name) { return row.type; }
    }
    try {
        return static_cast<uint8_t>(number_in("--type", text, mcu_input, fpga_last));
    } catch (const failure&) {
        fail(problem::wrong_usage, "--type \"%s\": give a name or its number: %s", text.c_str(),
             update_type_names().c_str());
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
    run.facts.update({{"buffer", options.addr}, {"file", path}});
    check_picture(path, options);
    session talk(used, run);
    const auto payload = payload_of({options.size.hor, options.size.ver}, path);
    const file_job job{"picture", "picture_write", order_of(command::file_write, options, payload)};
    talk.doing = transfer_text;
    const answer got = done(talk, job, run);
    if (got.result != 0) {
        fail(problem::refused, "picture \"%s\" was not written (result %d): see rvkd's log", path.c_str(), got.result);
    }
    const std::string rate = rate_text(picture_bytes(options.size), run.facts["elapsed_s"]);
    const std::string what =
        format("picture of %u x %u into buffer %u", options.size.hor, options.size.ver, options.addr);
    run.answer = what + " " + acknowledged(job, talk, got.seq, used, what, run) + ": " + rate;
}

void run_picture_get(const settings& used, const picture_options& options, outcome& run)
{
    const std::string base = absolute_path(options.file, "BASE", read_back_path_max);
    const uint64_t bytes = picture_bytes(options.size);
    file_watch watched{{{{base, bytes}, {(base + ".bmp").substr(0, image_name_max), bytes + bmp::head_bytes}}}};
    const auto& [raw, image] = watched.files;
    note_request(used, options, command::file_read, "card memory into files", run);
    note_picture(options, run);
    run.facts.update({{"addr", options.addr}, {"raw_file", raw.path}, {"image_file", image.path}});
    check_target(raw.path);
    check_target(image.path);
    if (raw.path == image.path) {
        fail(problem::wrong_usage, "BASE \"%s\": with %zu characters both files would be one; choose a shorter name",
             base.c_str(), base.size());
    }
    session talk(used, run);
    talk.greet();
    const stop_watch watch;
    watched.begin();
    const auto payload = payload_of({options.size.hor, options.size.ver}, base);
    const file_job job{"read-back", "read_back", order_of(command::file_read, options, payload)};
    const uint16_t number = talk.tell(job.order);
    talk.doing = transfer_text;
    waited(job, [&] {
        talk.greet_patiently(); // handled in their order: the job has begun now, or waits behind no other
        watched.last_event = file_watch::clock::now();
        talk.wait_while_alive([&](std::chrono::milliseconds wait) { return watched.both_closed(wait); });
    });
    run.facts["elapsed_s"] = watch.seconds();
    const std::string rate = rate_text(raw.bytes, run.facts["elapsed_s"]);
    check_length(raw);
    check_length(image);
    const std::string what = format("picture of %u x %u read into %s and %s", options.size.hor, options.size.ver,
                                    raw.path.c_str(), image.path.c_str());
    run.answer = what + ", " + acknowledged(job, talk, number, used, what, run) + ": " + rate;
}

void run_update(const settings& used, const update_options& options, outcome& run)
{
    const std::string path = absolute_path(options.file, "FILE", update_path_max);
    const char* const name = std::ranges::find(names, options.type, &type_name::type)->name;
    note_request(used, options, command::update, "firmware update", run);
    run.facts.update({{"type", options.type}, {"type_meaning", name}, {"file", path}});
    const uint64_t bytes = check_image(path, options.type);
    run.facts["data_bytes"] = bytes;
    session talk(used, run);
    const auto payload = payload_of({options.type}, path);
    const file_job job{"update", "update", order_of(command::update, options, payload)};
    const bool by_tool = options.type <= mcu_vpu;
    talk.doing = [by_tool] { return by_tool ? "the programming tool runs" : transfer_text(); };
    const answer got = done(talk, job, run);
    const std::string what = format("slot %d, image \"%s\"", options.slot, path.c_str());
    const std::string rate = rate_text(bytes, run.facts["elapsed_s"]);
    const std::string said = by_tool ? "" : ", " + acknowledged(job, talk, got.seq, used, "update of " + what, run);
    if (got.result != 0) {
        fail(problem::refused, "update of %s failed (result %d): %s; see rvkd's log", what.c_str(), got.result,
             update_failure(options.type, got.result).c_str());
    }
    run.answer = format("slot %d updated (%s)%s: ", options.slot, name, said.c_str()) + rate;
}

} // namespace rvk::ctl
