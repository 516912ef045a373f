// See the header.
#include "faults/faulty_daemon.h"

#include "base/bytes.h"
#include "base/fd.h"
#include "eth_raw/frame.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <sys/mman.h>

namespace rvk {
namespace {

constexpr char plan_path[] = "/run/rvk-bench/fault-plan";
constexpr uint64_t no_demo_picture = 16 << 20; // bytes; less than one takes
constexpr uint32_t held_addr = 0x20000100;
constexpr uint8_t held_slot = 2;
constexpr uint16_t fence_seq = 0xFFFF;
constexpr uint32_t no_update_type = 0; // nothing is done, and that is answered

const command_fields command_fence{.code = command::read, .len = frame_data_max + 1, .seq = fence_seq}; // refused

bool is_fence(const std::vector<uint8_t>& answer, uint8_t code)
{
    return answer.size() >= message_head_bytes && answer[message::code] == code &&
           load_le16(answer.data() + message::seq) == fence_seq;
}

} // namespace

std::vector<uint8_t> update_payload(uint32_t type, const std::string& path)
{
    std::vector<uint8_t> out(4 + path.size() + 1);
    store_le32(out.data(), type);
    std::copy(path.begin(), path.end(), out.begin() + 4);
    return out;
}

bool wants_all_faults()
{
    const char* const asked = getenv("RVK_FAULTS");
    return asked != nullptr && std::string(asked) == "all";
}

planned_faults::planned_faults()
{
    const unique_fd file{open(plan_path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0600)};
    if (!file || ftruncate(file.get(), sizeof(fault_plan)) != 0) { abort(); }
    void* const shared = mmap(nullptr, sizeof(fault_plan), PROT_READ | PROT_WRITE, MAP_SHARED, file.get(), 0);
    if (shared == MAP_FAILED) { abort(); }
    plan = static_cast<fault_plan*>(shared);
}

planned_faults::~planned_faults() { munmap(plan, sizeof *plan); }

child_setup planned_faults::setup() const
{
    child_setup setup = daemon_setup();
    setup.environment.push_back("LD_PRELOAD=" + program("librvk_fault_preload.so"));
    setup.environment.push_back(std::string(fault_plan_variable) + "=" + plan_path);
    return setup;
}

void planned_faults::clear()
{
    plan->fail_at = 0;
    plan->room = 0;
    plan->all_behind = 0;
    plan->short_pauses = 0;
    plan->seen = 0;
    plan->failed = 0;
    plan->looks_asked = 0;
    plan->looks_given = 0;
}

std::array<int32_t, pool_classes> planned_faults::look() const
{
    std::array<int32_t, pool_classes> found;
    found.fill(-1);
    const uint32_t asked = ++plan->looks_asked;
    if (!comes_true([&] { return plan->looks_given == asked; })) { return found; }
    std::copy(plan->in_use.begin(), plan->in_use.end(), found.begin());
    return found;
}

void FaultsTest::SetUp()
{
    FilesTest::SetUp();
    kill_daemon();
    faults.plan->short_pauses = 1;
    faults.plan->room = no_demo_picture;
    start_daemon(faults.setup());
    ASSERT_TRUE(comes_true([&] { return faults.plan->failed == 1; })) << "the demo found memory";
    farm.write({0, held_slot}, held_addr, content(1, 64));
    picture = file("small", content(2, small_width * small_height * 4));
    client = std::make_unique<conversation>();
    ASSERT_EQ(fault_in_service(), "");
    at_rest = faults.look();
}

void FaultsTest::TearDown()
{
    if (d) {
        EXPECT_EQ(fault_in_service(), "");
        EXPECT_EQ(faults.look(), at_rest);
    }
    FilesTest::TearDown();
}

std::string FaultsTest::fault_in_service()
{
    if (d->end(milliseconds{0}) != still_running) { return "the daemon has ended"; }
    conversation other;
    if (!other.is_greeted()) { return "no greeting"; }
    const command_fields read{.code = command::read, .slot = held_slot, .addr = held_addr, .len = 64};
    const std::vector<uint8_t> answer = other.ask(read), held = content(1, 64);
    if (result_of(answer) != 0) { return "a read is not answered, or with a failure"; }
    if (!std::equal(held.begin(), held.end(), answer.begin() + message::payload)) { return "a read gives other bytes"; }
    const command_fields write{.code = command::write_ack, .slot = held_slot, .addr = 0x20, .payload = {1, 2, 3}};
    if (result_of(other.ask(write)) != 0) { return "a write is not answered, or with a failure"; }
    const command_fields put{.code = command::file_write,
                             .payload = picture_payload(small_width, small_height, picture)};
    if (result_of(other.ask(put)) != 0) { return "a picture is not answered, or with a failure"; }
    return "";
}

std::vector<std::vector<uint8_t>> FaultsTest::answers_until_done()
{
    std::vector<std::vector<uint8_t>> answers;
    const auto collect_to = [&](uint8_t code) {
        for (;;) {
            std::vector<uint8_t> answer = client->receive(patience);
            if (answer.empty() || is_fence(answer, code)) { return !answer.empty(); }
            answers.push_back(std::move(answer));
        }
    };
    client->tell(command_fence);
    client->tell({.code = command::update, .payload = update_payload(no_update_type, picture), .seq = fence_seq});
    if (!collect_to(command::read) || !collect_to(command::update)) { ADD_FAILURE() << "a fence is not answered"; }
    EXPECT_TRUE(comes_true([&] { return faults.look() == at_rest; })) << "blocks are not given back";
    for (;;) {
        std::vector<uint8_t> answer = client->receive(milliseconds{0});
        if (answer.empty()) { return answers; }
        answers.push_back(std::move(answer));
    }
}

} // namespace rvk
