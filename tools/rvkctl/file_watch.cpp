// See the header. The folders are watched, not the files: those may not be there yet.
#include "rvkctl/file_watch.h"

#include "rvkctl/outcome.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <poll.h>
#include <sys/inotify.h>

namespace rvk::ctl {
namespace {

constexpr std::chrono::seconds missing_after{1}; // the daemon opens the second file at once after the first
constexpr uint32_t wanted = IN_OPEN | IN_CREATE | IN_MODIFY | IN_CLOSE_WRITE;

} // namespace

file_watch::file_watch(const std::string& first, const std::string& second)
    : fd(inotify_init1(IN_CLOEXEC | IN_NONBLOCK))
{
    files[0].path = first;
    files[1].path = second;
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
    if (files[0].closed && files[1].closed) { return true; }
    check_for_a_missing_one();
    return false;
}

void file_watch::note(const char* events, size_t bytes)
{
    for (size_t at = 0; at + sizeof(inotify_event) <= bytes;) {
        inotify_event event;
        memcpy(&event, events + at, sizeof event);
        const char* name = event.len == 0 ? "" : events + at + sizeof event;
        for (watched& file : files) {
            if (event.wd != file.folder || file.name != name) { continue; }
            file.opened = true;
            file.closed = file.closed || (event.mask & IN_CLOSE_WRITE) != 0;
            last_event = clock::now();
        }
        at += sizeof event + event.len;
    }
}

void file_watch::check_for_a_missing_one()
{
    const auto closed = std::find_if(files.begin(), files.end(), [](const watched& f) { return f.closed; });
    const auto missing = std::find_if(files.begin(), files.end(), [](const watched& f) { return !f.opened; });
    if (closed == files.end() || missing == files.end() || clock::now() - last_event < missing_after) { return; }
    throw failure{problem::refused, "the daemon could not open \"" + missing->path + "\": see rvkd's log"};
}

} // namespace rvk::ctl
