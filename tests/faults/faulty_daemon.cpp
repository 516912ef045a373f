// See the header.
#include "faults/faulty_daemon.h"

#include "base/bytes.h"
#include "base/fd.h"
#include "eth_raw/frame.h"
#include "faults/injection.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sstream>
#include <sys/mman.h>

namespace rvk {
namespace {

constexpr char plan_path[] = "/run/rvk-bench/fault-plan";
constexpr uint64_t no_demo_picture = 16 << 20; // bytes; less than one takes
constexpr uint32_t held_addr = 0x20000100;
constexpr uint8_t held_slot = 2;
constexpr uint16_t fence_seq = 0xFFFF;
constexpr uint32_t no_update_type = 0;
constexpr milliseconds update_end{300}; // from an update's answer to the moment when commands are taken again

// Commands that do nothing and are answered: a read that is refused, an update of a type that is none.
command_fields command_fence() { return {.code = command::read, .len = frame_data_max + 1, .seq = fence_seq}; }

command_fields job_fence(const std::string& any_file)
{
    return {.code = command::update, .payload = update_payload(no_update_type, any_file), .seq = fence_seq};
}

size_t open_files(pid_t process)
{
    const std::filesystem::directory_iterator folder("/proc/" + std::to_string(process) + "/fd");
    return static_cast<size_t>(std::distance(begin(folder), end(folder)));
}

bool is_fence(const std::vector<uint8_t>& answer)
{
    return answer.size() >= message_head_bytes && load_le16(answer.data() + message::seq) == fence_seq;
}

} // namespace

bool log_says(const std::string& function, const std::string& text)
{
    std::istringstream log(file_text(log_files[0]));
    for (std::string line; std::getline(log, line);) {
        const log_line parsed = parse_log_line(line);
        if ((function.empty() || parsed.function == function) && parsed.text.rfind(text, 0) == 0) { return true; }
    }
    return false;
}

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
    plan->short_pauses = 1;
}

planned_faults::~planned_faults() { munmap(plan, sizeof *plan); }

child_setup planned_faults::setup() const
{
    child_setup setup = daemon_setup();
    setup.environment.push_back("LD_PRELOAD=" + program("librvk_fault_preload.so"));
    setup.environment.push_back(std::string(fault_plan_variable) + "=" + plan_path);
    setup.before_exec = [] { dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDERR_FILENO); }; // a line per failed send
    return setup;
}

void planned_faults::clear()
{
    plan->fail_at = 0;
    plan->room = 0;
    plan->all_behind = 0;
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
    faults.plan->room = no_demo_picture;
    start_daemon(faults.setup(), arguments);
    ASSERT_TRUE(comes_true([&] { return faults.plan->failed == 1; })) << "the demo found memory";
    farm.write({0, held_slot}, held_addr, content(1, 64));
    picture = file("small", content(2, small_width * small_height * 4));
    client = std::make_unique<conversation>();
    ASSERT_EQ(fault_in_service(), "");
    at_rest = faults.look();
    files_at_rest = open_files(d->pid());
    for (int look = 0; look < 10; ++look) { // its status file may be open
        pause_ms(5);
        files_at_rest = std::min(files_at_rest, open_files(d->pid()));
    }
}

void FaultsTest::TearDown()
{
    if (d && d->end(milliseconds{0}) == still_running) {
        EXPECT_EQ(fault_in_service(), "");
        EXPECT_EQ(faults.look(), at_rest);
        EXPECT_TRUE(
            comes_true([&] { return open_files(d->pid()) == files_at_rest; })); // its status is now and then one
    }
    const std::string log = arguments.empty() ? "" : file_text(log_files[0]);
    EXPECT_EQ(log.find("second release"), std::string::npos);
    EXPECT_EQ(log.find("assert"), std::string::npos);
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

std::vector<int32_t> FaultsTest::results_of(const command_fields& command)
{
    std::vector<int32_t> results;
    const bool is_update = command.code == command::update;
    if (is_update) { // what comes while it runs is dropped
        results.push_back(result_of(client->ask(command)));
    } else {
        client->tell(command);
    }
    const bool on_file_thread = is_update || command.code == command::file_write || command.code == command::file_read;
    const command_fields fence = on_file_thread ? job_fence(picture) : command_fence();
    client->tell(fence);
    for (;;) {
        const std::vector<uint8_t> answer = client->receive(is_update ? update_end : patience);
        if (is_fence(answer)) { break; }
        if (!answer.empty()) {
            results.push_back(result_of(answer));
        } else if (is_update) { // dropped too: the update is answered before it is over
            client->tell(fence);
        } else {
            ADD_FAILURE() << "the command behind it is not answered";
            break;
        }
    }
    EXPECT_TRUE(comes_true([&] { return faults.look() == at_rest; })) << "blocks are not given back";
    for (;;) {
        const std::vector<uint8_t> late = client->receive(milliseconds{0});
        if (late.empty()) { return results; }
        results.push_back(result_of(late));
    }
}

void FaultsTest::start_with_log(const child_setup& setup, const std::vector<std::string>& in_front)
{
    unlink(log_files[0].c_str());
    d = std::make_unique<daemon_process>(std::vector<std::string>{"-f"}, setup, in_front);
}

void FaultsTest::judge_start()
{
    ASSERT_TRUE(comes_true([] { return log_says("", "create apipc wex") || log_says("WexApRecvTaskCreate", ""); }));
    ASSERT_TRUE(comes_true([] { return log_says("ApMsgFileProc", "file w") || log_says("WexApFileTaskCreate", ""); }));
    const bool commands = log_says("", "create apipc wex succeed");
    const bool link = !log_says("create", "failed to create thread") && !log_says("", "init_netdev(0) failed");
    const bool files = !log_says("WexApFileTaskCreate", ""), signals = !log_says("start_crash_threads", "failed");
    ASSERT_EQ(d->end(milliseconds{0}), still_running);
    if (commands) {
        conversation other;
        EXPECT_TRUE(other.is_greeted());
        EXPECT_EQ(result_of(other.ask({.code = command::read, .len = 4})), link ? 0 : -1);
        const auto put = picture_payload(small_width, small_height, picture);
        EXPECT_EQ(result_of(other.ask({.code = command::file_write, .payload = put})), files ? 0 : -1);
    }
    faults.plan->fail_at = 0;
    status_tid = status_thread_of(d->pid());
    ASSERT_EQ(d->end_by(signals ? SIGTERM : SIGKILL), signals ? 0 : 1000 + SIGKILL);
    d.reset();
}

} // namespace rvk
