// Card memory into files: which bytes are read, where they end up, and what becomes of files that cannot be made.
#include "ap_msg/message.h"
#include "ap_msg/read_back.h"
#include "base/bytes.h"
#include "services/jobs.h"
#include "support/log_capture.h"

#include <unistd.h>

using namespace rvk;

namespace {

constexpr uint32_t start_word = 0x1000;
constexpr uint64_t start_byte = start_word * uint64_t{8};

class ReadBack : public FileServiceTest {
protected:
    void get(const std::string& base, uint32_t hor, uint32_t ver)
    {
        const file_job job = job_of(command::file_read, start_word, picture_payload(hor, ver, base));
        EXPECT_EQ(read_file_handle(job.message_head, job.data_head), 0);
        EXPECT_TRUE(take_messages().empty()); // never answered
    }
    // Card memory as the steps deliver it: 1,400 bytes of each 1,408.
    void preset(std::span<const uint8_t> delivered)
    {
        for (size_t at = 0; at < delivered.size(); at += 1400) {
            farm.write_pictures({0, 1}, start_byte + at / 1400 * 1408,
                                delivered.subspan(at, std::min<size_t>(1400, delivered.size() - at)));
        }
    }
};

TEST_F(ReadBack, LinesWithoutTheirPaddingAndAnImageUpsideDown)
{
    constexpr uint32_t hor = 100, ver = 9; // stride 448: 4,032 bytes, three steps
    const std::vector<uint8_t> memory = pattern(5, 448 * ver);
    preset(memory);
    get(folder / "back", hor, ver);
    const std::vector<uint8_t> raw = bytes_of(folder / "back"), image = bytes_of(folder / "back.bmp");
    ASSERT_EQ(raw.size(), hor * ver * 4);
    ASSERT_EQ(image.size(), 54 + hor * ver * 4);
    for (uint32_t y = 0; y < ver; ++y) {
        for (uint32_t i = 0; i < hor * 4; ++i) {
            ASSERT_EQ(raw[y * 400 + i], memory[y * 448 + i]);
            ASSERT_EQ(image[54 + (ver - 1 - y) * 400 + i], memory[y * 448 + i / 4 * 4 + 3 - i % 4]);
        }
    }
    EXPECT_EQ(load_le32(image.data() + 2), 54 + hor * ver * 4);
    EXPECT_EQ(load_le32(image.data() + 18), hor);
    EXPECT_EQ(load_le32(image.data() + 22), ver);
    EXPECT_EQ(load_le16(image.data() + 28), 32);
    EXPECT_EQ(take_commands(), std::vector<std::string>{"sync"});
}

TEST_F(ReadBack, StepsLie1408BytesApart)
{
    farm.set_behaviour({.status_bytes = 900}); // a status of far more than its byte spoils nothing
    get(folder / "back", 750, 1);              // stride 3,008
    std::string seen;
    for (const sent_frame& frame : frames_to(0xA0008)) { seen += std::to_string(frame.fields.len) + " "; }
    EXPECT_EQ(seen, "7 7 7 ");
    seen.clear();
    for (const recorded_request& request : farm.history()) {
        request_fields f;
        ASSERT_EQ(check_request(request.frame, f), verdict::good);
        if (f.addr != 0xA0008) { continue; }
        seen += std::to_string(load_le32(f.data.data())) + "+" + std::to_string(load_le16(f.data.data() + 4)) + " ";
    }
    EXPECT_EQ(seen, "4096+22 4272+22 4448+4 ");
    size_t asked = 0;
    for (const sent_frame& frame : frames_to(0xB0000)) { asked += frame.fields.len; }
    EXPECT_EQ(asked, 3008u);
}

TEST_F(ReadBack, AStepThatFailsLeavesZeros)
{
    constexpr uint32_t hor = 16, ver = 60; // stride 64: 3,840 bytes, three steps
    const std::vector<uint8_t> memory = pattern(5, 64 * ver);
    preset(memory);
    farm.set_faults({.read_empty = 2}); // status and data of the first step
    get(folder / "back", hor, ver);
    const std::vector<uint8_t> raw = bytes_of(folder / "back");
    ASSERT_EQ(raw.size(), memory.size());
    EXPECT_EQ(std::vector(raw.begin(), raw.begin() + 1400), std::vector<uint8_t>(1400));
    EXPECT_TRUE(std::equal(raw.begin() + 1400, raw.end(), memory.begin() + 1400));
    EXPECT_EQ(bytes_of(folder / "back.bmp").size(), 54 + memory.size());
}

TEST_F(ReadBack, FilesThatCannotBeMadeAreNotReadFor)
{
    std::filesystem::create_directory(folder / "taken.bmp");
    write_bytes(folder / "first.bmp", {});
    ASSERT_EQ(link((folder / "first.bmp").c_str(), (folder / "first").c_str()), 0);
    const std::string one_file = folder / std::string(99 - (folder / "").size(), 'x');
    for (const std::string& base : {folder / "none/at/all", folder / "taken", folder / "first", one_file}) {
        SCOPED_TRACE(base);
        get(base, 4, 4);
        EXPECT_EQ(logged("file open failed"), 1u) << log_text();
        static_cast<void>(take_log());
    }
    get(folder / std::string(250, 'y'), 4, 4);
    EXPECT_EQ(logged("characters, at most 255"), 1u) << log_text();
    EXPECT_TRUE(farm.history().empty());
}

TEST_F(ReadBack, ALongNameIsCutAt99Characters)
{
    const std::string base = folder / std::string(120 - (folder / "").size(), 'z');
    get(base, 4, 4);
    EXPECT_EQ(bytes_of(base).size(), 64u);
    EXPECT_EQ(bytes_of(base.substr(0, 99)).size(), 54u + 64u);
}

TEST_F(ReadBack, AFullDiskIsSaidAndTheJobEnds)
{
    const test_folder small(true);
    get(small / "back", 64, 256); // 64 KiB each
    EXPECT_GE(logged("file is incomplete"), 1u) << log_text();
}

} // namespace
