#include "cardsim/counts.h"

namespace rvk {
namespace {

constexpr auto first_refusal = static_cast<size_t>(verdict::wrong_destination);
constexpr size_t first_mistake = 1; // behind `none`

void append(std::string& text, const char* name, uint64_t count)
{
    if (count == 0) { return; }
    if (!text.empty()) { text += ", "; }
    text += std::string(name) + ' ' + std::to_string(count);
}

} // namespace

uint64_t farm_counts::refused() const
{
    uint64_t sum = 0;
    for (size_t i = first_refusal; i < verdict_count; ++i) { sum += verdicts[i]; }
    for (size_t i = first_mistake; i < mistake_count; ++i) { sum += mistakes[i]; }
    return sum;
}

std::string farm_counts::refusals() const
{
    std::string text;
    for (size_t i = first_refusal; i < verdict_count; ++i) {
        append(text, name_of(static_cast<verdict>(i)), verdicts[i]);
    }
    for (size_t i = first_mistake; i < mistake_count; ++i) {
        append(text, name_of(static_cast<mistake>(i)), mistakes[i]);
    }
    return text.empty() ? "none" : text;
}

std::string farm_counts::injections() const
{
    std::string text;
    for (const fault_row& row : fault_table()) { append(text, row.name, of(row.kind)); }
    for (size_t i = 0; i < misbehaviour_count; ++i) {
        append(text, name_of(static_cast<misbehaviour>(i)), misbehaved[i]);
    }
    return text.empty() ? "none" : text;
}

} // namespace rvk
