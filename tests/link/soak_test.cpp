// The daemon under eight requesters and a bad link, for RVK_SOAK_SECONDS (default 10, and 30 under ThreadSanitizer) or
// RVK_SOAK_COMMANDS. Afterwards the whole history is compared: what was asked, what was answered, every frame the cards
// received, and what they hold. `scripts/soak` repeats it.
#include "base/pause.h"
#include "link/soak_requester.h"
#include "support/log_capture.h"

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <malloc.h>
#include <memory>
#include <numeric>
#include <thread>

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define __SANITIZE_THREAD__ 1
#endif
#endif

using namespace rvk;

namespace {

#if defined(__SANITIZE_THREAD__)
constexpr uint64_t default_seconds = 30;
#else
constexpr uint64_t default_seconds = 10;
#endif
constexpr uint32_t requesters = 8;
constexpr size_t history_frames = 1'000'000;

struct tally {
    int frames = 0, taken = 0; // that reached the cards; that they did not lose
};

enum class held { nothing, right, wrong };

// A number from the environment, the default where it is not set.
uint64_t number(const char* name, uint64_t otherwise)
{
    const char* const text = std::getenv(name);
    return text != nullptr ? std::strtoull(text, nullptr, 10) : otherwise;
}

uint64_t soak_us() { return number("RVK_SOAK_SECONDS", default_seconds) * 1'000'000; }

soak_limits limits_of_each()
{
    const auto commands = static_cast<size_t>(number("RVK_SOAK_COMMANDS", 0));
    return commands == 0 ? soak_limits{.end_us = now_us() + soak_us()} : soak_limits{.commands = commands / requesters};
}

// A lost answer costs everybody a tenth of a second and more: the long form loses less, to get through its commands.
double how_bad() { return number("RVK_SOAK_COMMANDS", 0) == 0 ? 1 : 0.25; }

// Of all rounds of this process so far.
struct totals {
    size_t rounds = 0, commands = 0, answered = 0, failed = 0, reported = 0;
    uint64_t frames = 0;
    std::string resident; // before the second round: the first one's memory is what later ones take again
};
totals all_rounds;

std::string resident()
{
    malloc_trim(0);
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) { return line.substr(line.find_first_of("0123456789")); }
    }
    return "?";
}

// Every answer stands for exactly one frame; only the piece that decides is answered, and only what was seen is good.
const char* judge_synchronous(const soak_piece& piece, const tally& sent)
{
    if (sent.frames != 1) { return "not exactly one frame"; }
    if (piece.answers != (piece.decides ? 1 : 0)) { return "not answered exactly once"; }
    if (piece.decides && piece.result == 0 && sent.taken != 1) { return "called good, but no card saw it"; }
    if (piece.kind == soak_kind::read && piece.result == 0 && !piece.data_right) { return "wrong data"; }
    return nullptr;
}

// A write that a card took may still be reported, when all its acknowledgements were lost; one that no card took must
// be. Nothing is given up before its third frame.
const char* judge_unwaited(const soak_piece& piece, const tally& sent)
{
    if (sent.frames < 1 || sent.frames > 3) { return "not one to three frames"; }
    if (piece.answers > 1) { return "reported twice"; }
    if (piece.answers == 1 && sent.frames != 3) { return "given up early"; }
    if (piece.answers == 0 && sent.taken == 0) { return "lost without a report"; }
    return nullptr;
}

const char* judge(const soak_piece& piece, const tally& sent, held memory)
{
    const bool unwaited = piece.kind == soak_kind::unwaited_write;
    if (const char* const error = unwaited ? judge_unwaited(piece, sent) : judge_synchronous(piece, sent)) {
        return error;
    }
    if (piece.kind == soak_kind::read) { return nullptr; }
    return memory == (sent.taken > 0 ? held::right : held::nothing) ? nullptr : "the card holds something else";
}

class Soak : public DaemonTest {
protected:
    void SetUp() override
    {
        DaemonTest::SetUp();
        if (++all_rounds.rounds <= 2) { all_rounds.resident = resident(); }
        resident_now = resident();
        farm.write({0, soak_slot_of(soak_kind::read)}, soak_read_addr, pattern(soak_read_addr, soak_read_bytes));
        farm.record_history(history_frames);
        for (uint32_t i = 0; i < requesters; ++i) {
            clients.push_back(std::make_unique<soak_requester>(i, seed + i));
            clients.back()->open();
        }
    }
    void run();
    void play_faults(const std::atomic<size_t>& running);
    void print_totals() const;
    void check_all();
    void count_frames();
    held held_of(const soak_piece& piece);

    const uint64_t seed = number("RVK_SOAK_SEED", now_us()); // of what is asked, and in which order
    std::vector<std::unique_ptr<soak_requester>> clients;
    std::map<uint32_t, tally> sent; // by address: each is used once
    size_t log_assertions = 0;
    std::string resident_now;
};

void Soak::run()
{
    const soak_limits limits = limits_of_each();
    std::atomic<size_t> running = clients.size();
    std::vector<std::thread> threads;
    for (auto& client : clients) {
        threads.emplace_back([&client, &limits, &running] {
            client->run(limits);
            --running;
        });
    }
    play_faults(running);
    for (std::thread& thread : threads) { thread.join(); }
    settle_down();
    for (auto& client : clients) { client->drain(); }
}

// A bad link, and in between cards that are off until some unwaited writes have been given up.
void Soak::play_faults(const std::atomic<size_t>& running)
{
    constexpr size_t enough = 20;
    const uint64_t off_us = now_us() + soak_us() / 4;
    const double loss = 0.05 * how_bad(), rare = 0.01 * how_bad();
    card_faults faults{.seed = seed, .loss = loss, .corrupt = rare, .duplicate = 0.02, .delay = rare};
    farm.set_faults(faults);
    size_t given_up = 0;
    while (running > 0) {
        pause_ms(50);
        for (const log_entry& entry : take_log()) { // a line per command: not kept
            const auto says = [&](const char* part) { return entry.text.find(part) != std::string::npos; };
            if (says("not send again!")) { ++given_up; }
            if (says("assert") || says("second release")) { ++log_assertions; }
        }
        const bool off = now_us() > off_us && given_up < enough;
        if (off == (faults.loss.part > 0.5)) { continue; }
        faults.loss = off ? 1.0 : loss;
        ++faults.seed;
        farm.set_faults(faults);
    }
}

void Soak::count_frames()
{
    for (const recorded_request& request : farm.history()) {
        request_fields fields;
        if (check_request(request.frame, fields) != verdict::good) { continue; }
        ++sent[fields.addr].frames;
        if (!request.lost) { ++sent[fields.addr].taken; }
    }
    EXPECT_EQ(farm.history_overflow(), 0u);
}

held Soak::held_of(const soak_piece& piece)
{
    const std::vector<uint8_t> there = farm.read({0, soak_slot_of(piece.kind)}, piece.addr, piece.len);
    if (there == pattern(piece.addr, piece.len)) { return held::right; }
    return there == std::vector<uint8_t>(piece.len) ? held::nothing : held::wrong;
}

void Soak::check_all()
{
    count_frames();
    size_t pieces = 0, answered = 0, failed = 0, reported = 0, wrong = 0;
    for (const auto& client : clients) {
        all_rounds.commands += client->commands();
        for (const std::string& surprise : client->surprises()) { ADD_FAILURE() << surprise; }
        for (const soak_piece& piece : client->pieces()) {
            const bool unwaited = piece.kind == soak_kind::unwaited_write;
            const char* const error = judge(piece, sent[piece.addr], held_of(piece));
            if (error != nullptr && ++wrong <= 10) {
                ADD_FAILURE() << error << ": kind " << static_cast<int>(piece.kind) << " addr 0x" << std::hex
                              << piece.addr << std::dec << " len " << piece.len << ", frames "
                              << sent[piece.addr].frames << ", seen " << sent[piece.addr].taken << ", answers "
                              << piece.answers << ", result " << piece.result;
            }
            ++pieces;
            answered += !unwaited && piece.answers > 0 ? 1 : 0;
            (unwaited ? reported : failed) += piece.result != 0 ? 1 : 0;
        }
    }
    EXPECT_EQ(wrong, 0u);
    EXPECT_GT(reported, 0u);
    EXPECT_GT(pieces, 100u);
    const farm_counts counts = farm.counts();
    for (const fault kind : {fault::loss, fault::corrupt, fault::duplicate, fault::delay}) {
        EXPECT_GT(counts.of(kind), 0u) << fault_table()[static_cast<size_t>(kind)].name;
    }
    EXPECT_LE(failed, counts.of(fault::loss) + counts.of(fault::corrupt) + counts.of(fault::delay));
    std::printf("\nseed %llu: %zu pieces in %llu frames; %zu reads and waited writes failed, %zu unwaited reported\n",
                static_cast<unsigned long long>(seed), pieces, static_cast<unsigned long long>(counts.received), failed,
                reported);
    all_rounds.answered += answered;
    all_rounds.failed += failed;
    all_rounds.reported += reported;
    all_rounds.frames += counts.received;
    print_totals();
}

void Soak::print_totals() const
{
    const std::array<int32_t, mem_classes> blocks = blocks_in_use();
    std::printf("rounds %zu: commands %zu, frames %llu; reads and waited writes answered %zu, %zu of them -1; unwaited "
                "writes reported %zu; resident %s before, %s now; pool blocks in use %d\n",
                all_rounds.rounds, all_rounds.commands, static_cast<unsigned long long>(all_rounds.frames),
                all_rounds.answered, all_rounds.failed, all_rounds.reported, all_rounds.resident.c_str(),
                resident_now.c_str(), std::accumulate(blocks.begin(), blocks.end(), 0));
    std::fflush(stdout);
}

} // namespace

TEST_F(Soak, LosesNothingAndAnswersOnce)
{
    run();
    check_all();
    EXPECT_EQ(log_assertions, 0u);
}
