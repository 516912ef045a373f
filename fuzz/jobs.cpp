// Any payload of a file command, from its message through the mailbox and the job down to simulated cards, and its
// reply. Whatever the payload, the disk, the cards and the socket do wrong: a command that has a reply gets exactly one
// and the others none, nothing is sent and no tool run for what is refused, a picture's frames are its file's pixels or
// black and no byte more, files read back are whole, a firmware image arrives as it was, no block is left.
#include "job_input.h"
#include "message_input.h"
#include "private_files.h"

#include "ap_msg/dispatch.h"
#include "ap_msg/file_service.h"
#include "ap_msg/message.h"
#include "base/bytes.h"
#include "command/values.h"
#include "eth_raw/frame.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <sstream>
#include <string_view>

using namespace rvk;

namespace {

constexpr int tool_status = 0x500;
constexpr size_t step_space = 1408, step_data = 1400; // a read-back's steps, in card memory and in the picture

struct outcome {
    uint64_t frames = 0;
    std::vector<uint8_t> streamed; // to the data ports of pictures
    std::vector<std::string> tools;
    unsigned syncs = 0;
};
outcome* seen = nullptr;

void note_frame(std::span<const uint8_t> frame)
{
    ++seen->frames;
    const uint32_t addr = load_le32(&frame[request::addr]);
    if (frame[request::code] != code_write || (addr != 0x40000 && addr != 0x60000)) { return; }
    const auto data = frame.subspan(request::payload, load_le16(&frame[request::len]));
    seen->streamed.insert(seen->streamed.end(), data.begin(), data.end());
}

// Result: the daemon took a job, and it has been carried out.
bool run(const job_input& job)
{
    {
        const scoped_lock hold(file_mutex);
        file_name_data.fill(0); // no file command has this code
    }
    ApipcEventDeal(0, 0, job.message.data(), static_cast<int>(job.message.size()));
    {
        const scoped_lock hold(file_mutex);
        if (file_name_data[message::code - message::data_head] == 0) { return false; }
    }
    file_step();
    return true;
}

int32_t result_of(const job_input& job)
{
    const bool is_update = job.code == command::update;
    require(here->messages.size() == 1);
    const std::vector<uint8_t>& reply = here->messages[0].bytes;
    require(here->messages[0].to == job_requester && reply.size() == message_head_bytes + (is_update ? 4 : 0));
    require(reply[message::code] == job.code && reply[message::module] == module_self);
    if (is_update && job.payload.size() >= 4) { require(load_le32(&reply[message::payload]) == job.type); }
    return static_cast<int32_t>(load_le32(&reply[message::result]));
}

// What a picture file has to show: its pixels, or black.
std::vector<uint8_t> picture_wanted(const job_input& job, const std::optional<std::vector<uint8_t>>& file)
{
    const size_t wanted = size_t{job.hor} * job.ver * 4;
    std::vector<uint8_t> black(wanted);
    if (!file) { return black; }
    int64_t offset = 0;
    if (job.path->ends_with(".bmp")) {
        if (file->size() < 14) { return black; }
        offset = static_cast<int32_t>(load_le32(file->data() + 10));
        if (offset <= 0) { return black; }
    }
    const auto size = static_cast<int64_t>(file->size());
    if (size - offset < static_cast<int64_t>(wanted)) { return black; }
    if (wanted != 0) { memcpy(black.data(), file->data() + offset, wanted); }
    return black;
}

void check_picture(const job_input& job, const std::optional<std::vector<uint8_t>>& file)
{
    const bool to_do = job.is_picture_to_do();
    require(result_of(job) == (to_do ? 0 : -1));
    require(seen->tools.empty());
    if (!to_do) { return require(seen->frames == 0); }
    require(seen->streamed == picture_wanted(job, file));
    if (job.is_faultless()) { require(here->farm.counts().refused() == 0); }
}

// The picture in the card's memory as the read-back's steps find it; none where its addresses run over their 32 bits.
std::optional<std::vector<uint8_t>> picture_in_card(const job_input& job)
{
    const size_t line = size_t{job.hor} * 4, stride = (line + 63) / 64 * 64;
    const size_t space = (stride * job.ver + step_data - 1) / step_data * step_space;
    const uint64_t from = uint64_t{job.addr} * 8;
    if (job.addr + uint64_t{space} / 8 > UINT32_MAX) { return std::nullopt; }
    const auto memory = here->farm.with({job.model, job.slot}, [&](auto& c) { return c.pictures.read(from, space); });
    std::vector<uint8_t> picture(line * job.ver);
    for (size_t at = 0; at < picture.size(); ++at) {
        const size_t padded = at / line * stride + at % line;
        picture[at] = memory[padded / step_data * step_space + padded % step_data];
    }
    return picture;
}

// A file that could not be written whole must not have the size of one that was.
void check_cut_files(const job_input& job, const std::vector<uint8_t>& raw, const std::vector<uint8_t>& image)
{
    const size_t whole = size_t{job.hor} * job.ver * 4;
    require(raw.empty() || raw.size() == whole);
    require(image.empty() || (raw.size() == whole && image == tool::bmp_of(raw, {job.hor, job.ver}, 32)));
    require(raw.empty() || image.empty());
}

void check_read_back(const job_input& job, placed before)
{
    require(here->messages.empty() && seen->tools.empty() && seen->streamed.empty());
    if (!job.is_picture_to_do()) { return require(seen->frames == 0); }
    const std::string image_name = (*job.path + ".bmp").substr(0, 99);
    const auto raw = contents_of(*job.path);
    const auto image = contents_of(image_name);
    if (before == placed::folder || before == placed::fifo || job.path->empty() || image_name == *job.path) {
        return require(seen->frames == 0 && seen->syncs == 0);
    }
    require(raw && image && seen->syncs == (was_disk_full() && seen->frames == 0 ? 0 : 1)); // no space for its head
    if (was_disk_full()) { return check_cut_files(job, *raw, *image); }
    require(raw->size() == size_t{job.hor} * job.ver * 4);
    require(*image == tool::bmp_of(*raw, {job.hor, job.ver}, 32));
    const auto wanted = picture_in_card(job);
    for (size_t i = 0; wanted && i < raw->size(); ++i) {
        require((*raw)[i] == (*wanted)[i] || (!job.is_faultless() && (*raw)[i] == 0)); // a step that fails leaves zeros
    }
    require(!job.is_faultless() || here->farm.counts().refused() == 0);
}

bool is_plain(std::string_view path)
{
    static constexpr std::string_view allowed =
        "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ/._+-=,@%:";
    const bool option = path.starts_with('-') || path.substr(path.rfind('/') + 1).starts_with('-');
    return !option && path.find_first_not_of(allowed) == std::string_view::npos;
}

// One word of the tool's line is the path as it came, and none was added or split.
void check_tool(const job_input& job, placed before, int32_t result)
{
    static constexpr const char* kinds[] = {"input", "output", "vpu"};
    if (before != placed::file || !is_plain(*job.path)) { return require(seen->tools.empty() && result == -1); }
    if (seen->tools.empty()) { return require(job.path->size() > 900 && result == -1); }
    require(seen->tools.size() == 1 && result == tool_status);
    std::istringstream line(seen->tools[0]);
    std::vector<std::string> words;
    for (std::string word; line >> word;) { words.push_back(word); }
    require(words.size() >= 3 && words[0] == "/usr/vexo/bin/mcu_isp" && words[2] == kinds[job.type - 0x16]);
    const std::vector<std::string> wanted{"-C", "0x31", "-b", *job.path, "-r", "0x00"};
    require(std::equal(words.begin() + 3, words.end(), wanted.begin(), wanted.end() - (job.type == 0x18 ? 0 : 2)));
}

bool has_marker(const std::string& path)
{
    return path.find(".bin") != path.npos || path.find(".Bin") != path.npos || path.find(".BIN") != path.npos;
}

// Of an input card of the new generation: what its image is, unless a golden one is named as such already.
uint16_t model_told(const job_input& job)
{
    const bool named = job.path->find("b1.bin") != std::string::npos, golden = job.type == 0x1C;
    const bool is_adapted = job.generation == 1 && (job.type == 0x19 || (golden && !named));
    return static_cast<uint16_t>(is_adapted ? (job.model & 0xFF00) | (golden ? 0xFE : 0x01) : job.model);
}

// A transfer that is called a success put head and image into the card; without faults a good file is one.
void check_transfer(const job_input& job, const std::string& path, const std::optional<std::vector<uint8_t>>& image,
                    int32_t result)
{
    const bool good_file = image && has_marker(path);
    require(result == 0 || result == -1);
    if (was_disk_full()) { require(result == -1 && seen->frames <= 1); } // at most the card's generation is asked for
    if (job.is_faultless()) { require(result == (good_file ? 0 : -1)); }
    if (result != 0) { return; }
    const auto files = here->farm.with({0, job.slot}, [](auto& c) { return c.firmware.files; });
    require(good_file && files.size() == 1);
    require(std::ranges::equal(files[0].image(), *image));
    const auto sum = std::accumulate(image->begin(), image->end(), 0x5555u);
    require(load_le32(files[0].bytes.data()) == image->size() && load_le16(&files[0].bytes[130]) == (sum & 0xFFFF));
    require(files[0].device_type == (job.is_faultless() ? model_told(job) : files[0].device_type));
    require(files[0].device_type >> 8 == job.model >> 8);
}

void check_update(const job_input& job, const std::optional<std::vector<uint8_t>>& file, placed before,
                  const std::optional<std::vector<uint8_t>>& new_image)
{
    const int32_t result = result_of(job);
    if (!job.handed_over || !job.path) { return require(seen->frames == 0 && seen->tools.empty() && result == -1); }
    const bool asks_card = job.type == 0x19 || job.type == 0x1C;
    if (asks_card && !job.is_faultless() && seen->frames <= 1) { return; } // which file was meant is open
    const bool is_new = job.type == 0x19 && job.generation == 1 && job.path->find("b1.bin") == std::string::npos;
    if (is_new && !job.is_faultless()) { return; }
    const bool found = is_new ? new_image.has_value() : before != placed::nothing;
    if (!found) { return require(result == -1 && seen->tools.empty() && seen->frames == (asks_card ? 1u : 0u)); }
    if (job.type >= 0x16 && job.type <= 0x18) { return check_tool(job, before, result); }
    require(seen->tools.empty());
    if (job.type < 0x19 || job.type > 0x1E) { return require(result == 0 && seen->frames == 0); }
    if (is_new) { return check_transfer(job, new_image_path, new_image, result); }
    check_transfer(job, *job.path, file, result);
}

// No line is ever run: what the two that make the temporary file would do is done to it.
int shell(const char* line)
{
    if (run_on_private_files(line)) { return 0; }
    if (line == std::string_view("sync")) { return ++seen->syncs, 0; }
    return seen->tools.emplace_back(line), tool_status;
}

void check(const job_input& job, bool carried_out, const std::optional<std::vector<uint8_t>>& file, placed before)
{
    require(carried_out == job.handed_over && gbUpdateProcessRunning == 0);
    switch (job.code) {
    case command::file_write: return check_picture(job, file);
    case command::file_read: return check_read_back(job, before);
    default: return check_update(job, file, before, contents_of(new_image_path));
    }
}

} // namespace

extern "C" {

int LLVMFuzzerInitialize(int*, char***)
{
    open_private_files();
    return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const auto job = job_input_of({data, size});
    if (!job) { return 0; }
    place_files(*job);
    const placed before = job->path ? what_is_at(*job->path) : placed::nothing;
    const auto file = job->path ? contents_of(*job->path) : std::nullopt;
    world w;
    outcome noted;
    seen = &noted;
    refuse_every(w, job->refuse_every);
    w.on_frame = [next = w.on_frame, &w](std::span<const uint8_t> frame) {
        note_frame(frame);
        return next ? next(frame) : w.to_cards(frame);
    };
    w.on_shell = shell;
    card_faults faults = faults_by_number(job->fault);
    faults.generation = job->generation;
    w.farm.set_faults(faults);
    if (job->code == command::file_read) {
        const uint64_t at = uint64_t{job->addr} * 8;
        w.farm.with({job->model, job->slot}, [&](auto& c) { c.pictures.write(at, job->file); });
    }
    const bool carried_out = run(*job);
    w.drain();
    require_good_frames(w);
    check(*job, carried_out, file, before);
    clear_private_files();
    return 0;
}
}
