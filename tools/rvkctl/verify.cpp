// See the header.
#include "rvkctl/verify.h"

#include "command/values.h"

namespace rvk::ctl {

void note_same(uint64_t compared, outcome& run)
{
    run.facts["read_back"] = "same";
    run.facts["compared_bytes"] = compared;
}

void refuse_difference(const difference& first, const std::string& what, const std::string& place, outcome& run)
{
    run.facts["read_back"] = "differs";
    run.facts["first_difference"] = {
        {"offset", first.offset}, {"wanted", hex_text({&first.wanted, 1})}, {"got", hex_text({&first.got, 1})}};
    throw failure{problem::differs,
                  format("%s: first at offset %llu (%s), wanted %02x, got %02x", what.c_str(),
                         static_cast<unsigned long long>(first.offset), place.c_str(), first.wanted, first.got)};
}

void mark_not_read_back(failure& failed, outcome& run)
{
    run.facts["read_back"] = "none";
    failed.text = "written, but could not read it back: " + failed.text;
}

} // namespace rvk::ctl
