#include "ap_msg/file_request.h"

#include "ap_msg/message.h"
#include "base/bytes.h"
#include "main/log.h"

#include <algorithm>

namespace rvk {
namespace {

int32_t check_size(picture_size size)
{
    if (size.hor > side_max || size.ver > side_max) {
        log_print(LOG_HERE, "picture %u x %u refused: hor and ver are at most %u; nothing was sent\n", size.hor,
                  size.ver, side_max);
        return -1;
    }
    if (uint64_t{size.hor} * size.ver > pixels_max) {
        log_print(LOG_HERE, "picture %u x %u refused: it has at most %llu pixels; nothing was sent\n", size.hor,
                  size.ver, static_cast<unsigned long long>(pixels_max));
        return -1;
    }
    return 0;
}

} // namespace

file_request file_request_of(const mailbox_area& data_head)
{
    const auto field = [&data_head](size_t offset) { return data_head.data() + message::in_data_head(offset); };
    file_request r{};
    r.index = GetIndexById(*field(message::id));
    r.slot = *field(message::slot);
    r.model = load_le16(field(message::model));
    r.addr = load_le32(field(message::addr));
    const size_t len = std::min<size_t>(load_le16(field(message::len)), data_head.size() - data_head_bytes);
    r.payload = {data_head.data() + data_head_bytes, len};
    return r;
}

int32_t read_picture_job(const file_request& request, size_t path_max, picture_size* size, job_path* path)
{
    if (request.payload.size() < picture_job::path) {
        log_print(LOG_HERE, "picture job refused: %zu bytes are too short for a size and a path\n",
                  request.payload.size());
        return -1;
    }
    *size = {load_le32(request.payload.data() + picture_job::hor),
             load_le32(request.payload.data() + picture_job::ver)};
    if (read_path(request.payload, picture_job::path, path_max, path) != 0) { return -1; }
    return check_size(*size);
}

int32_t read_path(std::span<const uint8_t> payload, size_t at, size_t path_max, job_path* path)
{
    const auto text = payload.subspan(std::min(at, payload.size()));
    const auto end = std::find(text.begin(), text.end(), 0);
    const auto length = static_cast<size_t>(end - text.begin());
    if (end == text.end()) {
        log_print(LOG_HERE, "file path refused: it is not terminated within its %zu bytes\n", text.size());
        return -1;
    }
    if (length > path_max) {
        log_print(LOG_HERE, "file path refused: %zu characters, at most %zu\n", length, path_max);
        return -1;
    }
    path->fill('\0');
    std::copy_n(text.begin(), length, path->begin());
    return 0;
}

} // namespace rvk
