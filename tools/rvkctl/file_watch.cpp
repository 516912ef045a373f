// The folders are watched, not the files: those may not be there yet.
#include "rvkctl/file_watch.h"

#include "rvkctl/outcome.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <sys/inotify.h>
#include <sys/stat.h>

namespace rvk::ctl {
namespace {

constexpr std::chrono::seconds missing_after{1};      // the daemon opens the second file at once after the first
constexpr std::chrono::seconds both_missing_after{5}; // and the first at once, but a disk may be asleep
constexpr std::chrono::seconds at_rest{1};            // a file that nobody has written to for so long is complete
constexpr uint32_t wanted = IN_OPEN | IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE;

} // namespace

file_watch::file_watch(const expected& first, const expected& second)
    : fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK)), files{{{.path = first.path, .bytes = first.bytes},
                                                          {.path = second.path, .bytes = second.bytes}}}
{
    for (watched& file : files) {
        const std::filesystem::path whole = file.path;
        file.name = whole.filename().string();
        file.folder = inotify_add_watch(fd.get(), whole.parent_path().c_str(), wanted | IN_ONLYDIR);
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

} // namespace rvk::ctl
