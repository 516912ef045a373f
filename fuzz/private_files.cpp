#include "private_files.h"

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

#if __SIZEOF_POINTER__ == 4 // whose time has 64 bits only by this name
#define STAT "__stat64_time64"
#else
#define STAT "stat64"
#endif

extern "C" {
ssize_t __real_pwrite64(int file, const void* bytes, size_t count, off_t at);
int wrapped_stat(const char* path, struct stat* status) asm("__wrap_" STAT);
}

namespace {

constexpr size_t name_max = 200; // a file's name has at most 255 bytes; longer paths keep their start

std::string* folder = nullptr; // none: paths are the machine's own, as the fuzzer itself needs them
std::set<std::string>* used = nullptr;
size_t writes_left = SIZE_MAX;
bool disk_full = false;

void remove_folder()
{
    std::error_code ignored;
    std::filesystem::remove_all(*folder, ignored);
}

// An empty path names nothing here either.
std::string private_path(const std::string& path)
{
    if (path.empty()) { return ""; }
    std::string name = path;
    for (char& c : name) {
        if (c == '/') { c = '!'; }
    }
    if (name.size() > name_max) {
        name = name.substr(0, name_max / 2) + std::to_string(std::hash<std::string>{}(path));
    }
    return *folder + "/f" + name;
}

std::string note_use(const std::string& path)
{
    std::string mapped = private_path(path);
    if (!mapped.empty()) { used->insert(mapped); }
    return mapped;
}

int open_private(const char* path, int flags)
{
    return openat(AT_FDCWD, (flags & O_CREAT) != 0 ? note_use(path).c_str() : private_path(path).c_str(), flags, 0600);
}

} // namespace

void open_private_files()
{
    if (folder != nullptr) { return; }
    std::string name = (std::filesystem::temp_directory_path() / "rvk-fuzz-XXXXXX").string();
    if (mkdtemp(name.data()) == nullptr) { abort(); }
    folder = new std::string(name);
    used = new std::set<std::string>;
    atexit(remove_folder);
}

void clear_private_files()
{
    for (const std::string& path : *used) { ::remove(path.c_str()); }
    used->clear();
    fill_disk_after(SIZE_MAX);
}

void place(const std::string& path, placed what, std::span<const uint8_t> bytes)
{
    const std::string mapped = note_use(path);
    if (mapped.empty() || what == placed::nothing) { return; }
    if (what == placed::folder) { mkdir(mapped.c_str(), 0700); }
    if (what == placed::fifo) { mkfifo(mapped.c_str(), 0600); }
    if (what != placed::file) { return; }
    const int file = openat(AT_FDCWD, mapped.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    if (file < 0 || write(file, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) { abort(); }
    close(file);
}

void fill_disk_after(size_t writes)
{
    writes_left = writes;
    disk_full = false;
}

bool was_disk_full() { return disk_full; }

void make_huge(const std::string& path)
{
    if (truncate(private_path(path).c_str(), off_t{INT_MAX} + 1) != 0) { abort(); }
}

bool run_on_private_files(const std::string& line)
{
    static const std::string removes = "/bin/rm -f  ", makes = "/bin/touch ";
    if (line == removes + temporary_image) { return unlink(private_path(temporary_image).c_str()), true; }
    if (line == makes + temporary_image) { return place(temporary_image, placed::file, {}), true; }
    return false;
}

placed what_is_at(const std::string& path)
{
    struct stat status = {};
    if (fstatat(AT_FDCWD, private_path(path).c_str(), &status, 0) != 0) { return placed::nothing; }
    if (S_ISDIR(status.st_mode)) { return placed::folder; }
    return S_ISREG(status.st_mode) ? placed::file : placed::fifo;
}

std::optional<std::vector<uint8_t>> contents_of(const std::string& path)
{
    if (what_is_at(path) != placed::file) { return std::nullopt; }
    const int file = openat(AT_FDCWD, private_path(path).c_str(), O_RDONLY);
    struct stat status = {};
    if (file < 0 || fstat(file, &status) != 0) { abort(); }
    std::vector<uint8_t> bytes(static_cast<size_t>(status.st_size));
    if (pread(file, bytes.data(), bytes.size(), 0) != status.st_size) { abort(); }
    close(file);
    return bytes;
}

extern "C" {

int __wrap_open64(const char* path, int flags, ...)
{
    va_list more;
    va_start(more, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(more, int) : 0;
    va_end(more);
    return folder == nullptr ? openat(AT_FDCWD, path, flags, mode) : open_private(path, flags);
}

int __wrap_access(const char* path, int mode)
{
    return faccessat(AT_FDCWD, folder == nullptr ? path : private_path(path).c_str(), mode, 0);
}

int wrapped_stat(const char* path, struct stat* status)
{
    return fstatat(AT_FDCWD, folder == nullptr ? path : private_path(path).c_str(), status, 0);
}

ssize_t __wrap_pwrite64(int file, const void* bytes, size_t count, off_t at)
{
    if (writes_left == 0) {
        disk_full = true;
        errno = ENOSPC;
        return -1;
    }
    --writes_left;
    return __real_pwrite64(file, bytes, count, at);
}

void __wrap_sync() {}
}
