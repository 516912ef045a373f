// See the header.
#include "faults/load.h"

#include "base/bytes.h"
#include "system/cards.h"

#include <algorithm>
#include <sched.h>

namespace rvk {
namespace {

// What is wrong with an answer to a command; empty: nothing.
std::string fault_in(const std::vector<uint8_t>& answer, const command_fields& command)
{
    if (answer.empty()) { return "a command is not answered"; }
    if (answer.size() < message_head_bytes || answer[message::code] != command.code) { return "another answer"; }
    if (load_le16(answer.data() + message::seq) != command.seq) { return "the answer to an earlier command"; }
    const int32_t result = result_of(answer);
    if (result != 0 && result != -1) { return "result " + std::to_string(result); }
    if (result != 0 || command.code != command::read) { return ""; }
    const std::vector<uint8_t> held = content(1, load::bytes);
    const bool whole = answer.size() == message_head_bytes + held.size();
    const bool same = whole && std::equal(held.begin(), held.end(), answer.begin() + message::payload);
    return same ? "" : "a read gives other bytes";
}

} // namespace

uint32_t quantile(std::vector<uint32_t> values, double part)
{
    if (values.empty()) { return 0; }
    const size_t at = std::min(values.size() - 1, static_cast<size_t>(part * static_cast<double>(values.size())));
    std::nth_element(values.begin(), values.begin() + static_cast<std::ptrdiff_t>(at), values.end());
    return values[at];
}

std::string in_words(const load_figures& f)
{
    return "asked " + std::to_string(f.asked) + ", data " + std::to_string(f.good) + ", -1 " +
           std::to_string(f.refused) + "; median " + std::to_string(quantile(f.us, 0.5)) + " us, 99 % " +
           std::to_string(quantile(f.us, 0.99)) + " us, most " + std::to_string(quantile(f.us, 1.0)) + " us";
}

load::load(const load_options& options) : all(options.requesters)
{
    for (load_figures& figures : all) { threads.emplace_back(&load::ask, this, options, &figures); }
}

load::~load() { static_cast<void>(stop()); }

void load::ask(const load_options& options, load_figures* figures)
{
    const sched_param parameter{.sched_priority = options.priority};
    if (options.priority != 0 && sched_setscheduler(0, SCHED_FIFO, &parameter) != 0) { figures->wrong = "no priority"; }
    conversation requester;
    command_fields command{.slot = slot, .len = bytes};
    while (!stopping && figures->wrong.empty()) {
        ++command.seq;
        const bool reads = options.reads_only || command.seq % 2 == 0;
        command.code = reads ? command::read : command::write_ack;
        command.addr = reads ? addr : addr + bytes;
        command.payload.resize(reads ? 0 : bytes);
        const auto start = std::chrono::steady_clock::now();
        ++figures->asked;
        const std::vector<uint8_t> answer = requester.ask(command);
        const auto took =
            std::chrono::duration_cast<std::chrono::microseconds>(std::chrono::steady_clock::now() - start);
        figures->us.push_back(static_cast<uint32_t>(took.count()));
        figures->wrong = fault_in(answer, command);
        ++(result_of(answer) == 0 ? figures->good : figures->refused);
        if (options.pause_us != 0) { pause_us(options.pause_us); }
    }
    if (!requester.receive(milliseconds{20}).empty()) { figures->wrong += " a command is answered twice"; }
}

load_figures load::stop()
{
    stopping = true;
    for (std::thread& thread : threads) { thread.join(); }
    threads.clear();
    load_figures sum;
    for (const load_figures& one : all) {
        sum.asked += one.asked;
        sum.good += one.good;
        sum.refused += one.refused;
        sum.us.insert(sum.us.end(), one.us.begin(), one.us.end());
        if (sum.wrong.empty()) { sum.wrong = one.wrong; }
    }
    return sum;
}

} // namespace rvk
