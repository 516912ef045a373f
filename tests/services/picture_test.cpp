// Pictures into card memory: which bytes of which file reach the card, what is black instead, what is refused.
#include "ap_msg/message.h"
#include "ap_msg/picture_write.h"
#include "base/bytes.h"
#include "services/jobs.h"
#include "support/log_capture.h"

#include <fcntl.h>
#include <sys/stat.h>

using namespace rvk;

namespace {

constexpr uint16_t hor = 70, ver = 11; // 3,080 bytes: two whole frames and a short one
constexpr size_t pixels = size_t{hor} * ver * 4;
constexpr uint8_t buffer = 3;

class PictureWrite : public FileServiceTest {
protected:
    int32_t put(const std::string& path, uint32_t width = hor, uint32_t height = ver, uint32_t to = buffer)
    {
        const file_job job = job_of(command::file_write, to, picture_payload(width, height, path));
        return write_file_handle(job.message_head, job.data_head);
    }
    std::vector<uint8_t> on_card(uint8_t number = buffer) { return farm.picture({0, 1}, number); }
    size_t frames() { return farm.history().size(); }
};

std::vector<uint8_t> bmp_file(size_t offset, size_t size)
{
    std::vector<uint8_t> file = pattern(0x500, size);
    if (size >= 14) { store_le32(file.data() + 10, static_cast<uint32_t>(offset)); }
    return file;
}

struct file_case {
    const char* name; // of the file
    const char* what;
    std::vector<uint8_t> content;
    size_t from; // where in it the card's picture starts; black for npos
    const char* logged;
};
constexpr size_t black = std::string::npos;

const file_case file_cases[] = {
    {"a.bmp", "from its pixels on", bmp_file(54, 54 + pixels), 54, "offset = 54"},
    {"b.bmp", "what is behind the picture is ignored", bmp_file(54, 99 + pixels), 54, "offset = 54"},
    {"c.bmp", "one byte short", bmp_file(54, 53 + pixels), black, "file size error, hor=70, ver=11, filesize=3133"},
    {"d.bmp", "no offset", bmp_file(0, 54 + pixels), black, "file size error"},
    {"e.bmp", "a negative offset", bmp_file(0x80000010, 54 + pixels), black, "offset = -2147483632"},
    {"f.bmp", "an offset behind the end", bmp_file(1u << 30, 54 + pixels), black, "file size error"},
    {"g.bmp", "too short for an offset", bmp_file(0, 13), black, "file size error"},
    {"h.BMP", "capitals are no format", bmp_file(54, pixels), 0, "file no format"},
    {"i.txt", "from its start", bmp_file(54, pixels + 7), 0, "DDR2Write begin: ver=11 hor=70 addr=0x3"},
    {"j", "any other name", bmp_file(54, pixels), 0, "file no format"},
    {"k", "empty", {}, black, "file size error"},
};

TEST_F(PictureWrite, TheRightBytesOfAFileReachTheCard)
{
    for (const file_case& row : file_cases) {
        SCOPED_TRACE(std::string(row.name) + ": " + row.what);
        static_cast<void>(take_log());
        write_bytes(folder / row.name, row.content);
        EXPECT_EQ(put(folder / row.name), 0);
        std::vector<uint8_t> wanted(pixels);
        if (row.from != black) {
            std::copy_n(row.content.begin() + static_cast<ptrdiff_t>(row.from), pixels, wanted.begin());
        }
        EXPECT_EQ(on_card(), wanted);
        EXPECT_EQ(logged(row.logged), 1u) << log_text();
        EXPECT_EQ(logged("write file response ok"), 1u);
    }
}

TEST_F(PictureWrite, WhatCannotBeOpenedIsBlack)
{
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    std::filesystem::create_directory(folder / "folder");
    const std::string unopened = "open file " + (folder / "");
    const std::pair<const char*, std::string> rows[] = {{"missing", "not found file " + (folder / "missing")},
                                                        {"fifo", unopened + "fifo failed"},
                                                        {"folder", unopened + "folder failed"}};
    for (const auto& [name, line] : rows) {
        SCOPED_TRACE(name);
        farm.write_pictures({0, 1}, buffer * uint64_t{128} * 1024 * 1024, pattern(1, pixels));
        EXPECT_EQ(put(folder / name), 0);
        EXPECT_EQ(on_card(), std::vector<uint8_t>(pixels));
        EXPECT_EQ(logged(line), 1u) << log_text();
    }
}

TEST_F(PictureWrite, GoesOutInFourPhases)
{
    write_bytes(folder / "p", pattern(9, pixels));
    EXPECT_EQ(put(folder / "p", hor, ver, 0x103), 0); // not a number from 16 to 25; its low byte goes to the card
    EXPECT_EQ(put(folder / "p", hor, ver, 25), 0);
    std::string seen;
    for (const recorded_request& request : farm.history()) {
        request_fields f;
        ASSERT_EQ(check_request(request.frame, f), verdict::good);
        seen += std::to_string(f.code) + "@" + std::to_string(f.addr) + ":" + std::to_string(f.data.size());
        if (f.code == 17) { seen += "=" + std::to_string(f.data[0]); }
        seen += ' ';
    }
    EXPECT_EQ(seen, "17@28736:6=0 17@28736:1=1 1@262144:1400 1@262144:1400 1@262144:280 17@28736:1=0 "
                    "17@28800:6=0 17@28800:1=1 1@393216:1400 1@393216:1400 1@393216:280 17@28800:1=0 ");
}

TEST_F(PictureWrite, RefusesWhatNoCardTakes)
{
    const std::vector<uint8_t> open_end = [&] {
        std::vector<uint8_t> payload = picture_payload(hor, ver, folder / "p");
        payload.pop_back();
        return payload;
    }();
    const std::pair<std::vector<uint8_t>, const char*> rows[] = {
        {picture_payload(70'000, 2, "p"), "picture 70000 x 2 refused: hor and ver are at most 65535"},
        {picture_payload(2, 70'000, "p"), "picture 2 x 70000 refused"},
        {picture_payload(32'768, 16'384, "p"), "refused: it has at most 536870911 pixels"},
        {open_end, "file path refused: it is not terminated"},
        {{1, 2, 3}, "picture job refused: 3 bytes are too short"},
    };
    for (const auto& [payload, line] : rows) {
        SCOPED_TRACE(line);
        const file_job job = job_of(command::file_write, buffer, payload);
        EXPECT_EQ(write_file_handle(job.message_head, job.data_head), -1);
        EXPECT_EQ(logged(line), 1u) << log_text();
        EXPECT_EQ(logged("write file response not ok"), 1u);
        static_cast<void>(take_log());
    }
    EXPECT_EQ(frames(), 0u);
    const auto replies = take_messages();
    ASSERT_EQ(replies.size(), std::size(rows));
    for (const collected_message& reply : replies) {
        EXPECT_EQ(reply.bytes.size(), message_head_bytes);
        EXPECT_EQ(static_cast<int32_t>(load_le32(reply.bytes.data() + message::result)), -1);
        EXPECT_EQ(load_le16(reply.bytes.data() + message::seq), 77);
    }
}

TEST_F(PictureWrite, APictureOfNoSizeSendsNoData)
{
    write_bytes(folder / "p", pattern(9, 10));
    EXPECT_EQ(put(folder / "p", 0, ver), 0);
    EXPECT_EQ(frames(), 3u);
}

} // namespace
