#include "job_input.h"

#include "private_files.h"

#include "ap_msg/message.h"
#include "base/bytes.h"

#include <algorithm>
#include <iterator>

using namespace rvk;

namespace {

constexpr size_t carried_max = 1010;                                    // by the mailbox, behind the data head
constexpr size_t path_max = 1023, base_path_max = 255;                  // characters; of a read-back's files
constexpr uint64_t sides_max = 65'535, pixel_limit = uint64_t{1} << 29; // of pictures
constexpr uint64_t pixels_quick = 4096;                                 // of a picture that is not made small
constexpr uint32_t small_side = 64;

bool is_quick(const job_input& job)
{
    const uint64_t columns = job.code == command::file_read ? (uint64_t{job.hor} + 15) / 16 * 16 : job.hor;
    return columns * job.ver <= pixels_quick;
}

void make_small(job_input& job)
{
    job.hor %= small_side;
    job.ver %= small_side;
    store_le32(job.payload.data(), job.hor);
    store_le32(job.payload.data() + 4, job.ver);
}

std::optional<std::string> text_at(const job_input& job, size_t at)
{
    if (job.payload.size() < at) { return std::nullopt; }
    const auto begin = job.payload.begin() + static_cast<std::ptrdiff_t>(at);
    const auto end = std::find(begin, job.payload.end(), 0);
    const auto most = static_cast<std::ptrdiff_t>(job.code == command::file_read ? base_path_max : path_max);
    if (end == job.payload.end() || end - begin > most) { return std::nullopt; }
    return std::string(begin, end);
}

void read_payload(job_input& job)
{
    const uint8_t* bytes = job.payload.data();
    if (job.code == command::update) {
        if (job.payload.size() >= 4) { job.type = load_le32(bytes); }
        job.path = text_at(job, 4);
        return;
    }
    if (job.payload.size() >= 8) {
        job.hor = load_le32(bytes);
        job.ver = load_le32(bytes + 4);
    }
    job.path = text_at(job, 8);
    if (job.is_picture_to_do() && !is_quick(job)) { make_small(job); }
}

std::vector<uint8_t> message_of(const job_input& job, uint16_t len, std::span<const uint8_t> payload)
{
    std::vector<uint8_t> m(std::max(message_head_bytes, message::payload + payload.size()));
    store_le32(m.data() + message::aptid, job_requester);
    store_le16(m.data() + message::msg_class, static_cast<uint16_t>(data_class));
    m[message::id] = 254;
    m[message::code] = job.code;
    m[message::slot] = job.slot;
    store_le16(m.data() + message::model, job.model);
    store_le32(m.data() + message::addr, job.addr);
    store_le16(m.data() + message::len, len);
    std::copy(payload.begin(), payload.end(), m.begin() + message::payload);
    return m;
}

// What the message holds decides, its two bytes of padding included; a picture made small is put back into it.
void take_payload(job_input& job, uint16_t len)
{
    const auto begin = job.message.begin() + message::payload;
    const auto present = static_cast<size_t>(job.message.end() - begin);
    job.handed_over = len <= present && len <= carried_max;
    job.payload.assign(begin, begin + static_cast<std::ptrdiff_t>(std::min<size_t>(len, present)));
    if (!job.handed_over) {
        if (job.code == command::update && job.payload.size() >= 4) { job.type = load_le32(job.payload.data()); }
        return;
    }
    read_payload(job);
    std::copy(job.payload.begin(), job.payload.end(), begin);
}

} // namespace

bool job_input::is_picture_to_do() const
{
    if (!handed_over || !path || payload.size() < 8 || code == command::update) { return false; }
    return hor <= sides_max && ver <= sides_max && uint64_t{hor} * ver < pixel_limit;
}

std::optional<job_input> job_input_of(std::span<const uint8_t> data)
{
    static constexpr uint8_t codes[] = {command::file_write, command::file_read, command::update};
    if (data.size() < input_at::payload) { return std::nullopt; }
    job_input job{};
    job.flags = data[input_at::flags];
    job.generation = static_cast<uint8_t>(job.flags >> generation_shift);
    job.fault = data[input_at::fault];
    job.refuse_every = data[input_at::refuse_every];
    job.code = codes[data[input_at::code] % std::size(codes)];
    job.slot = data[input_at::slot];
    job.model = load_le16(&data[input_at::model]);
    job.addr = load_le32(&data[input_at::addr]);
    const auto rest = data.subspan(input_at::payload);
    job.file = rest.last(std::min<size_t>(load_le16(&data[input_at::file_bytes]), rest.size()));
    const auto payload = rest.first(rest.size() - job.file.size());
    const auto len =
        (job.flags & len_given) != 0 ? load_le16(&data[input_at::len]) : static_cast<uint16_t>(payload.size());
    job.message = message_of(job, len, payload);
    take_payload(job, len);
    return job;
}

void place_files(const job_input& job)
{
    fill_disk_after((job.flags & fills_disk) != 0 ? job.addr & 0xFF : SIZE_MAX);
    if ((job.flags & has_new_image) != 0) { place(new_image_path, placed::file, job.file); }
    if (!job.path || (job.flags & no_file) != 0) { return; }
    const placed what = (job.flags & a_folder) != 0 ? placed::folder : placed::file;
    place(*job.path, (job.flags & a_fifo) != 0 ? placed::fifo : what, job.file);
}
