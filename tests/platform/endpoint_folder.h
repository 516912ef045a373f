// A folder of endpoints for one test: private, empty at first, gone with its guard. APIPC_DIR names it meanwhile, and
// APCARD_SELF is unset, so that neither a daemon on this machine nor its settings are touched.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <stdexcept>
#include <string>

namespace rvk {

struct endpoint_folder {
    endpoint_folder()
    {
        if (mkdtemp(path.data()) == nullptr) { throw std::runtime_error("no folder below /tmp"); }
        setenv("APIPC_DIR", path.c_str(), 1);
        unsetenv("APCARD_SELF");
    }
    ~endpoint_folder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }

    std::string path = "/tmp/rvk-endpoints-XXXXXX";
};

} // namespace rvk
