// Pictures into card memory and back, through the daemon's file service. A put is answered; of a get only the two files
// tell that it is over.
#include "rvkctl/picture.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "base/picture.h"
#include "command/values.h"
#include "rvkctl/file_watch.h"
#include "rvkctl/scratch_folder.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fstream>
#include <sys/stat.h>

namespace rvk::ctl {
namespace {

std::vector<uint8_t> payload_of(const picture_options& options, const std::string& path)
{
    std::vector<uint8_t> out(picture_job::path + path.size() + 1); // the last stays zero
    store_le32(out.data() + picture_job::hor, options.hor);
    store_le32(out.data() + picture_job::ver, options.ver);
    std::copy(path.begin(), path.end(), out.begin() + picture_job::path);
    return out;
}

request request_of(uint8_t code, uint32_t addr, const picture_options& options, std::span<const uint8_t> payload)
{
    return {.code = code,
            .slot = options.slot,
            .model = options.model,
            .addr = addr,
            .len = static_cast<uint16_t>(payload.size()),
            .payload = payload};
}

void note_request(const picture_options& options, uint8_t code, const char* meaning, outcome& run)
{
    run.facts["code"] = code;
    run.facts["code_meaning"] = meaning;
    run.facts["slot"] = options.slot;
    run.facts["model"] = options.model;
    run.facts["hor"] = options.hor;
    run.facts["ver"] = options.ver;
    run.facts["data_bytes"] = pixel_bytes_of(options);
}

// The daemon answers "done" for the black picture that it writes in a bad file's place, so the file is looked at first.
void check_picture_file(const std::string& path, const picture_options& options)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0) {
        throw failure{problem::wrong_usage, "picture \"" + path + "\" cannot be used: " + strerror(errno)};
    }
    if (!S_ISREG(status.st_mode)) {
        throw failure{problem::wrong_usage, "picture \"" + path + "\" is not a regular file"};
    }
    const uint64_t offset = pixels_at(path);
    if (path.ends_with(".bmp") && offset == 0) {
        throw failure{problem::wrong_usage,
                      "picture \"" + path + "\" is no BMP file: give one, or raw pixels under another name"};
    }
    const uint64_t wanted = offset + pixel_bytes_of(options);
    if (static_cast<uint64_t>(status.st_size) >= wanted) { return; }
    throw failure{problem::wrong_usage, format("picture \"%s\" has %lld bytes, %u x %u pixels need %llu: check --size",
                                               path.c_str(), static_cast<long long>(status.st_size), options.hor,
                                               options.ver, static_cast<unsigned long long>(wanted))};
}

// A path that ends short: both files of a get must have their whole length.
void check_length(const std::string& path, uint64_t wanted)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) == 0 && static_cast<uint64_t>(status.st_size) == wanted) { return; }
    throw failure{problem::refused,
                  format("\"%s\" has %lld bytes and should have %llu: is the disk full? see rvkd's log", path.c_str(),
                         static_cast<long long>(status.st_size), static_cast<unsigned long long>(wanted))};
}

// The daemon writes into regular files only.
void check_target(const std::string& path)
{
    struct stat status = {};
    if (stat(path.c_str(), &status) != 0 || S_ISREG(status.st_mode)) { return; } // missing: the daemon makes it
    throw failure{problem::wrong_usage, "\"" + path + "\" is there and not a regular file: choose another BASE"};
}

void check_get_path(const picture_files& files)
{
    check_target(files.raw);
    check_target(files.image);
    if (files.raw != files.image) { return; }
    throw failure{problem::wrong_usage, format("BASE \"%s\": with %zu characters both files would be one; choose a "
                                               "shorter name",
                                               files.raw.c_str(), files.raw.size())};
}

void finish(const picture_options& options, const stop_watch& watch, const std::string& what, outcome& run)
{
    const double seconds = watch.seconds();
    run.facts["elapsed_s"] = seconds;
    run.answer = what + rate_text(pixel_bytes_of(options), seconds);
}

} // namespace

picture_files files_of(const std::string& raw) { return {raw, (raw + ".bmp").substr(0, image_name_max)}; }

uint64_t pixels_at(const std::string& path)
{
    if (!path.ends_with(".bmp")) { return 0; }
    uint8_t head[bmp::pixels_at_end] = {};
    std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(head), sizeof head);
    return load_le32(head + bmp::pixels_at);
}

void read_back(session& talk, const picture_options& options, const picture_files& files)
{
    file_watch watch(files.raw, files.image);
    const auto payload = payload_of(options, files.raw);
    talk.tell(request_of(command::file_read, options.where, options, payload));
    talk.greet_patiently(); // handled in their order: the job is in the daemon's hands now, or behind others no more
    watch.begun();
    talk.wait_while_alive([&](std::chrono::milliseconds wait) { return watch.both_closed(wait); });
    check_length(files.raw, pixel_bytes_of(options));
    check_length(files.image, pixel_bytes_of(options) + bmp::head_bytes);
}

void run_picture_put(const settings& used, const picture_options& options, outcome& run)
{
    run.facts.update(facts_of(used));
    note_request(options, command::file_write, "picture into card memory", run);
    run.facts["buffer"] = options.where;
    const std::string path = absolute_path(options.file, "FILE", picture_path_max);
    run.facts["file"] = path;
    check_picture_file(path, options);
    std::optional<scratch_folder> scratch;
    if (options.verify_at) { scratch.emplace(); }
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    talk.greet();
    const stop_watch watch;
    const auto payload = payload_of(options, path);
    const answer got = talk.ask_patiently(request_of(command::file_write, options.where, options, payload));
    run.facts["result"] = got.result;
    run.facts["result_meaning"] = result_meaning(got.result);
    if (got.result != 0) {
        throw failure{problem::refused,
                      format("picture \"%s\" was not written (result %d): see rvkd's log", path.c_str(), got.result)};
    }
    finish(options, watch,
           format("picture of %u x %u written into buffer %u: ", options.hor, options.ver, options.where), run);
    if (scratch) { run.answer += verify_picture(talk, options, path, *scratch, run); }
}

void run_picture_get(const settings& used, const picture_options& options, outcome& run)
{
    run.facts.update(facts_of(used));
    note_request(options, command::file_read, "card memory into files", run);
    run.facts["addr"] = options.where;
    const picture_files files = files_of(absolute_path(options.file, "BASE", read_back_path_max));
    check_get_path(files);
    run.facts["raw_file"] = files.raw;
    run.facts["image_file"] = files.image;
    session talk(used);
    run.facts["requester_identity"] = talk.identity();
    talk.greet();
    const stop_watch watch;
    read_back(talk, options, files);
    finish(options, watch,
           format("picture of %u x %u read into %s and %s: ", options.hor, options.ver, files.raw.c_str(),
                  files.image.c_str()),
           run);
}

} // namespace rvk::ctl
