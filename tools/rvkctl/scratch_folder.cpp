// See the header.
#include "rvkctl/scratch_folder.h"

#include "ap_msg/message.h"
#include "command/values.h"
#include "rvkctl/picture.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

namespace rvk::ctl {
namespace {

std::string parent_folder()
{
    const char* named = getenv("TMPDIR");
    return named == nullptr || *named == '\0' ? "/tmp" : absolute_path(named, "TMPDIR", SIZE_MAX);
}

} // namespace

scratch_folder::scratch_folder()
{
    std::string wanted = parent_folder() + "/rvkctl-XXXXXX";
    // The daemon cuts a longer name, and would then overwrite whatever has the shorter one.
    if (const size_t longest = (wanted + "/back.bmp").size(); longest > image_name_max) {
        throw failure{problem::wrong_usage, format("TMPDIR \"%s\" is too long: the files of a read-back would have %zu "
                                                   "characters, at most %zu",
                                                   parent_folder().c_str(), longest, image_name_max)};
    }
    if (mkdtemp(wanted.data()) == nullptr) {
        throw failure{problem::wrong_usage, "no folder can be made in \"" + parent_folder() +
                                                "\" for a read-back: " + strerror(errno) + "; set TMPDIR to another"};
    }
    path = wanted;
}

scratch_folder::~scratch_folder()
{
    // Twice: a daemon that was about to make a file still may, once.
    std::error_code error;
    for (int i = 0; i < 2 && std::filesystem::remove_all(path, error) == static_cast<std::uintmax_t>(-1); ++i) {}
}

} // namespace rvk::ctl
