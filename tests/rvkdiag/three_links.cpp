#include "rvkdiag/three_links.h"

#include <fstream>
#include <ostream>

namespace rvk {
namespace {

constexpr size_t history_frames = 20'000;
constexpr int cards_priority = 80; // no ordinary thread of other programs may hold answers back
constexpr uint64_t one_too_many_ms = 20;

std::filesystem::path fresh_folder()
{
    char name[] = "/tmp/rvkdiag-test-XXXXXX";
    return mkdtemp(name) == nullptr ? "/no/folder/below/tmp" : name;
}

std::vector<std::string> shell_command(std::vector<std::string> arguments, const std::string& redirection)
{
    const std::vector<std::string> shell{"sh", "-c", "exec \"$0\" \"$@\" " + redirection, program("rvkdiag")};
    arguments.insert(arguments.begin(), shell.begin(), shell.end());
    return arguments;
}

const child_setup setup{.environment = {sanitizer_manners}};

} // namespace

void PrintTo(const seen& s, std::ostream* out)
{
    *out << std::hex << "code " << int{s.code} << " model " << s.model << " slot " << int{s.slot} << " seq " << s.seq
         << " addr " << s.addr << " len " << s.len << std::dec << ", " << s.data.size() << " bytes";
}

bool becomes(const std::function<bool()>& condition) { return comes_true(condition, milliseconds{20'000}); }

void write_bytes(const std::filesystem::path& path, std::span<const uint8_t> bytes)
{
    std::ofstream(path, std::ios::binary)
        .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
}

std::vector<uint8_t> numbered(size_t bytes, uint8_t from)
{
    std::vector<uint8_t> out(bytes);
    for (size_t i = 0; i < bytes; ++i) { out[i] = static_cast<uint8_t>((i + from) % 251); }
    return out;
}

ThreeLinks::ThreeLinks() : folder(fresh_folder()) {}

ThreeLinks::~ThreeLinks()
{
    std::error_code ignored;
    std::filesystem::remove_all(folder, ignored);
}

void ThreeLinks::SetUp()
{
    for (size_t i = 0; i < links.size(); ++i) {
        farms[i].record_history(history_frames);
        ASSERT_EQ(links[i].start({.interface = "card" + std::to_string(i), .priority = cards_priority}), "");
    }
}

void ThreeLinks::TearDown()
{
    for (size_t i = 0; i < links.size(); ++i) {
        links[i].stop();
        EXPECT_EQ(links[i].dropped(), 0u);
        EXPECT_EQ(farms[i].counts().refusals(), "none");
        EXPECT_EQ(farms[i].history_overflow(), 0u);
    }
}

said ThreeLinks::run(std::vector<std::string> arguments) const
{
    const std::string err = folder / "stderr";
    child tool(shell_command(std::move(arguments), "2> " + err), setup);
    const int status = tool.end();
    return {status, tool.output(), file_text(err)};
}

std::unique_ptr<child> ThreeLinks::start(std::vector<std::string> arguments) const
{
    return std::make_unique<child>(shell_command(std::move(arguments), "2>&1"), setup);
}

std::vector<seen> ThreeLinks::requests(size_t link, size_t count)
{
    EXPECT_TRUE(becomes([&] { return farms[link].history().size() >= count; }));
    pause_ms(one_too_many_ms);
    std::vector<seen> out;
    for (const recorded_request& request : farms[link].history()) {
        request_fields fields;
        if (check_request(request.frame, fields) != verdict::good) { continue; }
        out.push_back({fields.code, fields.model, fields.slot, fields.seq, fields.addr, fields.len,
                       std::vector<uint8_t>(fields.data.begin(), fields.data.end())});
    }
    return out;
}

void ThreeLinks::forget()
{
    for (card_farm& farm : farms) {
        farm.set_faults({});
        farm.record_history(history_frames);
    }
}

} // namespace rvk
