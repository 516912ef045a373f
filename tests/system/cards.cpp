// See the header.
#include "system/cards.h"

#include "base/bytes.h"

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace rvk {
namespace {

constexpr int cards_priority = 80; // below the daemon's threads
constexpr char folder[] = "/root/files_test";
constexpr uint8_t demo_last_buffer = 24;

std::optional<picture_record> record_of(const card_farm& farm, card_id card, uint8_t buffer)
{
    for (const picture_record& record : farm.pictures(card)) {
        if (record.buffer == buffer) { return record; }
    }
    return std::nullopt;
}

} // namespace

std::vector<uint8_t> content(uint32_t seed, size_t size)
{
    std::vector<uint8_t> bytes(size);
    uint32_t x = seed * 2'654'435'761u + 1;
    for (uint8_t& byte : bytes) {
        x = x * 1'664'525u + 1'013'904'223u;
        byte = static_cast<uint8_t>(x >> 24 | 1);
    }
    return bytes;
}

std::vector<uint8_t> file_bytes(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

void write_file(const std::string& path, std::span<const uint8_t> bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> picture_payload(uint32_t hor, uint32_t ver, const std::string& path)
{
    std::vector<uint8_t> out(8);
    store_le32(out.data(), hor);
    store_le32(out.data() + 4, ver);
    std::copy(path.begin(), path.end(), std::back_inserter(out));
    out.push_back(0);
    return out;
}

bool demo_is_over(const card_farm& farm)
{
    return comes_true(
        [&] {
            const auto last = record_of(farm, {0, 1}, demo_last_buffer);
            return last && last->whole;
        },
        demo_patience);
}

void FilesTest::SetUp()
{
    std::filesystem::create_directories(folder);
    ASSERT_EQ(cards.start({.priority = cards_priority}), "");
    start_daemon();
}

void FilesTest::TearDown()
{
    if (d) { EXPECT_EQ(d->end_by(SIGTERM, patience), 0); } // a test that failed may have killed it
    if (!cards_may_refuse) { EXPECT_EQ(farm.counts().refusals(), "none"); }
    cards.stop();
    EXPECT_EQ(cards.dropped(), 0u);
    std::filesystem::remove_all(folder);
}

void FilesTest::start_daemon(const child_setup& setup, const std::vector<std::string>& arguments)
{
    kill_daemon();
    d = std::make_unique<daemon_process>(arguments, setup);
    ASSERT_TRUE(conversation().is_greeted());
}

void FilesTest::kill_daemon()
{
    if (!d) { return; }
    EXPECT_EQ(d->end_by(SIGKILL, patience), 1000 + SIGKILL);
    d.reset();
}

std::string FilesTest::file(const std::string& name, std::span<const uint8_t> bytes)
{
    const std::string path = in_folder(name);
    write_file(path, bytes);
    return path;
}

std::string FilesTest::in_folder(const std::string& name) { return std::string(folder) + "/" + name; }

int FilesTest::rvkctl(const std::vector<std::string>& arguments) { return start_rvkctl(arguments)->end(); }

std::unique_ptr<child> FilesTest::start_rvkctl(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), program("rvkctl"));
    return std::make_unique<child>(arguments, child_setup{.environment = {sanitizer_manners}});
}

std::optional<picture_record> FilesTest::picture_of(card_id card, uint8_t buffer) const
{
    return record_of(farm, card, buffer);
}

} // namespace rvk
