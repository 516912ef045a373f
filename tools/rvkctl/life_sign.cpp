// See the header.
#include "rvkctl/life_sign.h"

#include <cstdio>
#include <unistd.h>

namespace rvk::ctl {
namespace {

constexpr std::chrono::seconds interval{1};
constexpr char wipe_line[] = "\r\033[K";

} // namespace

life_sign::life_sign() : terminal(isatty(STDERR_FILENO) == 1) {}

life_sign::~life_sign()
{
    if (visible) { fputs(wipe_line, stderr); }
}

void life_sign::show(const std::string& doing)
{
    const auto now = clock::now();
    if (!terminal || now - shown < interval) { return; }
    shown = now;
    visible = true;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - started).count();
    fprintf(stderr, "%srvkctl: %lld s%s%s", wipe_line, static_cast<long long>(seconds), doing.empty() ? "" : ", ",
            doing.c_str());
    fflush(stderr);
}

} // namespace rvk::ctl
