// The rows that need no link: pending requests by the ten thousand, and the block pool beside the system allocator.
#include "harness.h"
#include "mem/mem.h"
#include "queue/queue.h"

#include <algorithm>
#include <cstdlib>
#include <memory>
#include <new>
#include <numeric>
#include <random>
#include <string>
#include <vector>

namespace rvk::bench {
namespace {

constexpr size_t pending_many = queue_nodes_max, pending_few = 655;
constexpr size_t blocks_waiting = 50'000;
constexpr size_t pairs = 100'000;
constexpr uint32_t base_addr = 0x10000;
constexpr unsigned pair_bytes[] = {94, sizeof(QNode), 1430}; // a short frame, a node, a full frame

void file_nodes(size_t count)
{
    for (size_t i = 0; i < count; ++i) {
        void* block = mem_alloc(sizeof(QNode));
        require(block != nullptr, "no memory");
        auto* node = new (block) QNode{};
        node->addr = base_addr + static_cast<uint32_t>(i);
        node->seq = static_cast<uint16_t>(i);
        require(queue_add(0, ACK_QUEUE, node) == 0, "the queue is full too early");
    }
}

void delete_it(QNode* node, const uint8_t*, uint32_t) { queue_del(0, ACK_QUEUE, &node); }

void answer_all(const std::vector<uint32_t>& order)
{
    static const uint8_t data = 0;
    for (const uint32_t i : order) {
        queue_find(0, ACK_QUEUE, base_addr + i, 0, static_cast<uint16_t>(i), 0, delete_it, &data);
    }
}

// Nanoseconds per answer; files the requests first, which does not count.
double answer_pending(const std::vector<uint32_t>& order, size_t times)
{
    double sum = 0;
    for (size_t i = 0; i < times; ++i) {
        file_nodes(order.size());
        sum += time_per_unit(order.size(), [&order] { answer_all(order); });
    }
    const scoped_lock hold(mtx[0][ACK_QUEUE]);
    require(Qcount[0][ACK_QUEUE] == 0, "requests are left over");
    return sum / static_cast<double>(times);
}

std::vector<uint32_t> make_order(const std::string& how, size_t count)
{
    std::vector<uint32_t> order(count);
    std::iota(order.begin(), order.end(), 0u);
    if (how == "in reverse") { std::reverse(order.begin(), order.end()); }
    if (how == "shuffled") { std::shuffle(order.begin(), order.end(), std::mt19937(7)); }
    return order;
}

template <auto take, auto give>
double pair_ns(unsigned bytes)
{
    return time_per_unit(pairs, [bytes] {
        for (size_t i = 0; i < pairs; ++i) {
            void* volatile block = take(bytes); // volatile: or the pair is optimised away
            give(block);
        }
    });
}
constexpr auto pool_pairs = pair_ns<mem_alloc, mem_free>, malloc_pairs = pair_ns<malloc, free>;

void fill_pool(unsigned bytes)
{
    std::vector<void*> blocks(blocks_waiting);
    for (void*& block : blocks) { block = mem_alloc(bytes); }
    for (void* block : blocks) { mem_free(block); }
}

} // namespace

void queue_row()
{
    take_processor(sender_priority);
    queue_init();
    mem_init();
    for (const std::string how : {"in order", "in reverse", "shuffled"}) {
        const auto many = make_order(how, pending_many), few = make_order(how, pending_few);
        compare(
            {"65,535 pending, answered " + how, "655 pending", "ns per answer", 2},
            [&] { return answer_pending(many, 1); }, [&] { return answer_pending(few, pending_many / pending_few); });
    }
}

void pool_row()
{
    take_processor(sender_priority);
    mem_init();
    for (const unsigned bytes : pair_bytes) {
        compare(
            {"pool: allocate and release " + std::to_string(bytes) + " bytes", "`malloc` and `free`", "ns per pair", 1},
            [bytes] { return pool_pairs(bytes); }, [bytes] { return malloc_pairs(bytes); });
    }
    for (const unsigned bytes : pair_bytes) {
        compare(
            {"pool: " + std::to_string(bytes) + " bytes, 50,000 blocks waiting", "an empty pool", "ns per pair", 1.1},
            [bytes] {
                fill_pool(bytes);
                const double taken = pool_pairs(bytes);
                mem_uinit();
                return taken;
            },
            [bytes] { return pool_pairs(bytes); });
    }
}

} // namespace rvk::bench
