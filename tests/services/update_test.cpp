// Update requests: which image goes to which card by which road, and what the requester is told.
#include "ap_msg/firmware.h"
#include "ap_msg/message.h"
#include "ap_msg/update.h"
#include "base/bytes.h"
#include "services/jobs.h"
#include "support/log_capture.h"

using namespace rvk;

namespace {

constexpr uint8_t slot = 5;
constexpr uint16_t model = 0x1234;
constexpr char replacement[] = "/opt/upgddir/update_sources_card/fpga_bin/InputCardTop_b1.bin";

class Update : public FileServiceTest {
protected:
    // Result: what the requester is told.
    int32_t update(uint32_t type, const std::string& path)
    {
        const file_job job = job_of(command::update, 0, update_payload(type, path), slot, model);
        static_cast<void>(update_file_handle(job.message_head, job.data_head));
        const auto told = take_messages();
        if (told.size() != 1 || told[0].bytes.size() != 44) {
            ADD_FAILURE() << told.size() << " messages";
            return -99;
        }
        const uint8_t* m = told[0].bytes.data();
        EXPECT_EQ(load_le32(m + message::length), 0u);
        EXPECT_EQ(load_le16(m + message::model), model);
        EXPECT_EQ(load_le32(m + message::payload), type);
        EXPECT_EQ(load_le16(m + 42), 0);
        return static_cast<int32_t>(load_le32(m + message::result));
    }
    std::string image(const std::string& name, size_t size = 3000)
    {
        write_bytes(folder / name, pattern(0x77, size));
        return folder / name;
    }
    // "model" of the file information that reached the card last, "none" when none did.
    std::string told_model()
    {
        std::string found = "none";
        for (const recorded_request& request : farm.history()) {
            request_fields f;
            if (check_request(request.frame, f) != verdict::good || f.addr != 0x18200000) { continue; }
            found = std::to_string(f.data[0] << 8 | f.data[1]);
        }
        farm.record_history(100'000);
        return found;
    }
    std::vector<firmware_file> kept() { return farm.firmware({0, slot}); }
};

struct generation_case {
    const char* what;
    card_behaviour card;
    uint32_t type;
    const char* name; // of the image asked for
    bool replaced;    // by the one for new-generation cards
    uint16_t model;   // that the card is told
    const char* logged;
};
const generation_case generation_cases[] = {
    {"an old card", {.generation = 0}, 0x19, "fw.bin", false, 0x1234, "old input card"},
    {"a new card", {.generation = 1}, 0x19, "fw.bin", true, 0x1201, "SET INPUT INFO:[0x1201], filename:[/opt"},
    {"its image named", {.generation = 1}, 0x19, "x_b1.bin", false, 0x1201, "SET INPUT INFO:[0x1201]"},
    {"its golden image", {.generation = 1}, 0x1C, "fw.bin", false, 0x12FE, "SET INPUT GOLDEN INFO:[0x12fe]"},
    {"its golden image named", {.generation = 1}, 0x1C, "x_b1.bin", false, 0x1234, "new input card"},
    {"an odd card", {.generation = 7}, 0x19, "fw.bin", false, 0x1234, "mcu return input card type fail:[0x7]"},
    {"far more than one byte", {.generation = 0, .generation_bytes = 700}, 0x1C, "fw.bin", false, 0x1234, "old input"},
    {"no check of other types",
     {.generation = 1},
     0x1A,
     "fw.bin",
     false,
     0x1234,
     "update slot:5 model:0x1234 type:0x1a"},
};

TEST_F(Update, TheInputCardsGenerationDecides)
{
    std::filesystem::create_directories(std::filesystem::path(replacement).parent_path());
    write_bytes(replacement, pattern(0x99, 2000));
    for (const generation_case& row : generation_cases) {
        SCOPED_TRACE(row.what);
        static_cast<void>(take_log());
        farm.set_behaviour(row.card);
        const std::string path = image(row.name);
        EXPECT_EQ(update(row.type, path), 0);
        EXPECT_EQ(told_model(), std::to_string(row.model));
        ASSERT_FALSE(kept().empty());
        const auto wanted = bytes_of(row.replaced ? replacement : path);
        EXPECT_TRUE(std::ranges::equal(kept().back().image(), wanted));
        EXPECT_EQ(logged(row.logged), 1u) << log_text();
    }
}

struct tool_case {
    uint32_t type;
    const char* name;
    const char* line; // what is run, with PATH for the image's; null: refused
};
const tool_case tool_cases[] = {
    {0x16, "mcu.hex", "/usr/vexo/bin/mcu_isp -B input  -C 0x31 -b PATH "},
    {0x17, "mcu.hex", "/usr/vexo/bin/mcu_isp -B output  -C 0x31 -b PATH "},
    {0x18, "mcu.hex", "/usr/vexo/bin/mcu_isp -B vpu     -C 0x31 -b PATH -r 0x00 "},
    {0x16, "a;reboot", nullptr},
    {0x16, "a b", nullptr},
    {0x17, "-x", nullptr},
    {0x18, "$(x)", nullptr},
};

TEST_F(Update, MicrocontrollerImagesGoToTheTool)
{
    tool_status = 256;
    for (const tool_case& row : tool_cases) {
        SCOPED_TRACE(row.name);
        const std::string path = image(row.name);
        EXPECT_EQ(update(row.type, path), row.line != nullptr ? 256 : -1);
        std::vector<std::string> wanted;
        if (row.line != nullptr) {
            wanted = {row.line};
            wanted[0].replace(wanted[0].find("PATH"), 4, path);
        }
        EXPECT_EQ(take_commands(), wanted);
    }
    tool_status = 0;
    EXPECT_TRUE(farm.history().empty());
}

TEST_F(Update, WhatIsNotThereOrUnknownTouchesNoCard)
{
    EXPECT_EQ(update(0x1A, folder / "missing.bin"), -1);
    EXPECT_EQ(logged("missing.bin file not found"), 1u);
    EXPECT_EQ(update(0x99, image("fw.bin")), 0);
    EXPECT_EQ(logged("    no file need to update in round 1... "), 1u);
    std::vector<uint8_t> open_end = update_payload(0x1A, folder / "fw.bin");
    open_end.pop_back();
    const file_job job = job_of(command::update, 0, open_end, slot, model);
    static_cast<void>(update_file_handle(job.message_head, job.data_head));
    EXPECT_EQ(logged("file path refused: it is not terminated"), 1u);
    EXPECT_TRUE(farm.history().empty());
    EXPECT_EQ(take_messages().size(), 1u);
}

struct name_case {
    const char* name;
    int32_t result;
    const char* logged;
};
const name_case name_cases[] = {
    {"fw.BIN", 0, "file is *.bin! we will add 256B Head ."},
    {"fw.Bin", 0, "file is *.bin! we will add 256B Head ."},
    {"both.dat.bin", 0, "file is *.bin! we will add 256B Head ."},
    {"fw.bIn", -1, "stop! file is not *.dat or *.bin !\n "},
    {"fw.DAT", -1, "file is *.dat! we cann't decrypt it. stoped!\n "},
};

TEST_F(Update, TheNameTellsTheKindOfImage)
{
    for (const name_case& row : name_cases) {
        SCOPED_TRACE(row.name);
        EXPECT_EQ(sys_update(image(row.name).c_str(), model, slot), row.result);
        EXPECT_EQ(logged(row.logged), 1u) << log_text();
        static_cast<void>(take_log());
    }
    EXPECT_EQ(kept().size(), 3u);
}

TEST_F(Update, ImagesOfEverySizeArriveWhole)
{
    for (const size_t size : {0u, 1u, 768u, 769u, 1792u, 50000u}) {
        SCOPED_TRACE(size);
        const std::string path = image("fw.bin", size);
        const std::vector<uint8_t> content = bytes_of(path);
        EXPECT_EQ(sys_update(path.c_str(), model, slot), 0);
        ASSERT_FALSE(kept().empty());
        const firmware_file file = kept().back();
        EXPECT_TRUE(std::ranges::equal(file.image(), content));
        uint16_t sum = 0x5555;
        for (const uint8_t byte : content) { sum = static_cast<uint16_t>(sum + byte); }
        EXPECT_EQ(load_le32(file.bytes.data()), size);
        EXPECT_EQ(load_le16(file.bytes.data() + 130), sum);
        EXPECT_TRUE(std::ranges::equal(file.bytes, bytes_of("/home/updatebin.tmp")));
    }
}

struct transfer_case {
    const char* what;
    card_behaviour card;
    int32_t result;
    size_t pieces; // that went out, resent ones included
    const char* logged;
};
const transfer_case transfer_cases[] = {
    {"total_files_size is never retried", {.refuse_register = 1}, -1, 0, "send file_info.total_files_size err!"},
    {"another register is, once", {.refuse_register = 2}, 0, 4, "(1)msg error: try to send again ack 0x02."},
    {"but not twice", {.refuse_register = 2, .refuse_register_times = 2}, -1, 0, "(0)msg error: try to send again"},
    {"the last register",
     {.refuse_register = 7, .refuse_register_times = 2},
     -1,
     0,
     "send file_info.card_modelid err!"},
    {"a piece refused once", {.refuse_piece = 2}, 0, 5, "(1)msg error: try to send again ack 0x02."},
    {"a piece refused twice", {.refuse_piece = 2, .refuse_piece_times = 2}, -1, 3, "err! ack = 0X02\r\n "},
};

TEST_F(Update, ACardThatRefuses)
{
    for (const transfer_case& row : transfer_cases) {
        SCOPED_TRACE(row.what);
        static_cast<void>(take_log());
        farm.record_history(1000);
        farm.set_behaviour(row.card);
        const size_t before = kept().size();
        EXPECT_EQ(sys_update(image("fw.bin").c_str(), model, slot), row.result);
        EXPECT_EQ(frames_to(0x18000000).size(), row.pieces);
        EXPECT_EQ(kept().size(), before + (row.result == 0 ? 1 : 0)); // never a part for the whole
        EXPECT_EQ(logged(row.logged), 1u) << log_text();
    }
}

TEST_F(Update, ATemporaryFileThatCannotBeWrittenSendsNothing)
{
    const test_folder outside;
    const std::string path = image("fw.bin", 200'000);
    ASSERT_EQ(std::system("mount -t tmpfs -o size=64k none /home"), 0);
    EXPECT_EQ(sys_update(path.c_str(), model, slot), -1);
    ASSERT_EQ(std::system("umount /home"), 0);
    EXPECT_EQ(logged("/home/updatebin.tmp cannot be written"), 1u) << log_text();
    EXPECT_TRUE(farm.history().empty());
}

} // namespace
